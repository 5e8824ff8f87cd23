#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesk {

// White space is the platform's: blanks of every Unicode kind and tabs; line ends are
// \n \r \v \f, U+0085, U+2028 and U+2029. Text is UTF-8.

// Removes blanks and tabs at both ends; line ends stay.
std::string trim(std::string_view text);
// Removes white space and line ends at both ends.
std::string strip(std::string_view text);
// Whether nothing is left once white space and line ends are stripped.
bool isEmptyAfterTrim(std::string_view text);
// Whether the stripped text is non-empty and matches, as a whole,
// ((^(-)?\d*(\.\d+)?$)|(^(-)?\d+\.$)): so "-5", "3.", ".5" and a lone "-" are numeric.
bool isNumeric(std::string_view text);
// Removes every trailing character that is one of `characters` (ASCII).
std::string trimTrailingCharacters(std::string_view text, std::string_view characters);

// The text between the index-th (from 0) occurrence of `start` and the next `end` after it;
// nullopt when either is missing.
std::optional<std::string> findValueBetween(std::string_view text, std::string_view start,
                                            std::string_view end, std::size_t index);

// Shortens every run of identical consecutive lines that reaches `count` lines: the first
// line of the run stays, and one line "[previous line repeated N more times]" replaces the
// rest. Shorter runs are left alone; a count below 2 changes nothing.
std::string stringByReducingConsecutiveIdenticalLines(std::string_view text, std::size_t count);

// Conversions of text to numbers as the platform's strings do them: leading white space, an
// optional sign, then digits up to the first non-digit; 0 when there are none. intValue and
// integerValue saturate at the limits of their type.
std::int32_t intValue(std::string_view text);
std::int64_t integerValue(std::string_view text);
// Leading white space, then a decimal floating-point number ("1.5e3", ".5", "-2");
// 0.0 when there is none.
double doubleValue(std::string_view text);
// YES when, after leading white space, an optional sign and leading zeros, the text starts
// with Y, y, T, t or a digit 1 to 9.
bool boolValue(std::string_view text);

// The text in lower case, by Unicode's rules (ASCII text takes a fast path).
std::string lowercaseString(std::string_view text);

// Replaces every occurrence of `from` (non-empty) with `to`.
std::string replaceAll(std::string_view text, std::string_view from, std::string_view to);
// `format` with each "%@" replaced by the next of `objects`, in order; slots beyond them stay.
// For texts that must keep their "%@" form, such as script templates full of braces.
std::string stringWithObjects(std::string_view format,
                              std::initializer_list<std::string_view> objects);
std::vector<std::string> split(std::string_view text, char separator);
// Whether the bytes are well-formed UTF-8.
bool isValidUtf8(std::string_view bytes);
// The bytes with every ill-formed sequence replaced by U+FFFD.
std::string makeValidUtf8(std::string_view bytes);

}  // namespace vesk
