#include "foundation/StringHelpers.h"

#include <glib.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace vesk {
namespace {

bool isBlank(gunichar c) { return c == '\t' || g_unichar_type(c) == G_UNICODE_SPACE_SEPARATOR; }

bool isLineEnd(gunichar c) {
  return c == '\n' || c == '\r' || c == '\v' || c == '\f' || c == 0x85 || c == 0x2028 ||
         c == 0x2029;
}

// Cuts characters matching `drop` off both ends of well-formed UTF-8 text. Ill-formed text is
// cut byte by byte at ASCII blanks only, so that no sequence is ever split.
template <typename Pred>
std::string trimEnds(std::string_view text, Pred drop) {
  if (!isValidUtf8(text)) {
    std::size_t b = 0, e = text.size();
    auto ascii = [&](char c) { return static_cast<unsigned char>(c) < 0x80 && drop(c); };
    while (b < e && ascii(text[b])) ++b;
    while (e > b && ascii(text[e - 1])) --e;
    return std::string(text.substr(b, e - b));
  }
  const char* begin = text.data();
  const char* end = begin + text.size();
  while (begin < end && drop(g_utf8_get_char(begin))) begin = g_utf8_next_char(begin);
  while (end > begin) {
    const char* prev = g_utf8_find_prev_char(begin, end);
    if (prev == nullptr || !drop(g_utf8_get_char(prev))) break;
    end = prev;
  }
  return std::string(begin, end);
}

bool isAsciiSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Skips leading white space and reads an optional sign; returns the position of the first
// digit candidate.
std::size_t skipSpaceAndSign(std::string_view text, bool& negative) {
  std::size_t i = 0;
  while (i < text.size() && isAsciiSpace(text[i])) ++i;
  negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  return i;
}

template <typename Int>
Int saturatingParse(std::string_view text) {
  bool negative = false;
  std::size_t i = skipSpaceAndSign(text, negative);
  // Accumulate as a negative number so that the minimum of the type is reachable.
  Int value = 0;
  constexpr Int kMin = std::numeric_limits<Int>::min();
  constexpr Int kMax = std::numeric_limits<Int>::max();
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const Int digit = text[i] - '0';
    if (value < (kMin + digit) / 10) return negative ? kMin : kMax;
    value = value * 10 - digit;
  }
  if (negative) return value;
  return value == kMin ? kMax : -value;
}

}  // namespace

std::string trim(std::string_view text) { return trimEnds(text, isBlank); }

std::string strip(std::string_view text) {
  return trimEnds(text, [](gunichar c) { return isBlank(c) || isLineEnd(c); });
}

bool isEmptyAfterTrim(std::string_view text) { return strip(text).empty(); }

bool isNumeric(std::string_view text) {
  const std::string trimmed = strip(text);
  if (trimmed.empty() || !isValidUtf8(trimmed)) return false;
  static GRegex* const kNumber =
      g_regex_new(R"(((^(-)?\d*(\.\d+)?$)|(^(-)?\d+\.$)))", G_REGEX_OPTIMIZE,
                  static_cast<GRegexMatchFlags>(0), nullptr);
  GMatchInfo* info = nullptr;
  const bool matched = g_regex_match_full(kNumber, trimmed.data(), trimmed.size(), 0,
                                          static_cast<GRegexMatchFlags>(0), &info, nullptr);
  bool whole = false;
  if (matched) {
    gint start = -1, end = -1;
    whole = g_match_info_fetch_pos(info, 0, &start, &end) && start == 0 &&
            static_cast<std::size_t>(end) == trimmed.size();
  }
  g_match_info_free(info);
  return whole;
}

std::string trimTrailingCharacters(std::string_view text, std::string_view characters) {
  std::size_t end = text.size();
  while (end > 0 && characters.find(text[end - 1]) != std::string_view::npos) --end;
  return std::string(text.substr(0, end));
}

std::optional<std::string> findValueBetween(std::string_view text, std::string_view start,
                                            std::string_view end, std::size_t index) {
  if (start.empty() || end.empty()) return std::nullopt;
  std::size_t pos = 0;
  for (std::size_t n = 0;; ++n) {
    pos = text.find(start, pos);
    if (pos == std::string_view::npos) return std::nullopt;
    pos += start.size();
    if (n == index) break;
  }
  const std::size_t close = text.find(end, pos);
  if (close == std::string_view::npos) return std::nullopt;
  return std::string(text.substr(pos, close - pos));
}

std::string stringByReducingConsecutiveIdenticalLines(std::string_view text, std::size_t count) {
  if (count < 2) return std::string(text);
  const std::vector<std::string> lines = split(text, '\n');
  std::string out;
  out.reserve(text.size());
  bool first = true;
  auto emit = [&](std::string_view line) {
    if (!first) out += '\n';
    out += line;
    first = false;
  };
  for (std::size_t i = 0; i < lines.size();) {
    std::size_t run = 1;
    while (i + run < lines.size() && lines[i + run] == lines[i]) ++run;
    if (run >= count) {
      emit(lines[i]);
      emit("[previous line repeated " + std::to_string(run - 1) + " more times]");
    } else {
      for (std::size_t k = 0; k < run; ++k) emit(lines[i]);
    }
    i += run;
  }
  return out;
}

std::int32_t intValue(std::string_view text) { return saturatingParse<std::int32_t>(text); }

std::int64_t integerValue(std::string_view text) { return saturatingParse<std::int64_t>(text); }

double doubleValue(std::string_view text) {
  // strtod would also read hexadecimal, "inf" and "nan" and follow the C locale; the
  // platform reads plain decimal only, so the accepted prefix is measured here first.
  bool negative = false;
  std::size_t i = skipSpaceAndSign(text, negative);
  const std::size_t numberStart = i;
  std::size_t digits = 0;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i, ++digits;
  if (i < text.size() && text[i] == '.') {
    ++i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i, ++digits;
  }
  if (digits == 0) return 0.0;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    std::size_t j = i + 1;
    if (j < text.size() && (text[j] == '+' || text[j] == '-')) ++j;
    if (j < text.size() && text[j] >= '0' && text[j] <= '9') {
      while (j < text.size() && text[j] >= '0' && text[j] <= '9') ++j;
      i = j;
    }
  }
  const double magnitude =
      g_ascii_strtod(std::string(text.substr(numberStart, i - numberStart)).c_str(), nullptr);
  return negative ? -magnitude : magnitude;
}

bool boolValue(std::string_view text) {
  bool negative = false;
  std::size_t i = skipSpaceAndSign(text, negative);
  while (i < text.size() && text[i] == '0') ++i;
  if (i >= text.size()) return false;
  const char c = text[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

std::string replaceAll(std::string_view text, std::string_view from, std::string_view to) {
  if (from.empty()) return std::string(text);
  std::string out;
  out.reserve(text.size());
  std::size_t pos = 0;
  for (std::size_t hit; (hit = text.find(from, pos)) != std::string_view::npos;
       pos = hit + from.size()) {
    out.append(text.substr(pos, hit - pos));
    out.append(to);
  }
  out.append(text.substr(pos));
  return out;
}

std::string lowercaseString(std::string_view text) {
  std::string lower(text);
  bool ascii = true;
  for (char& c : lower) {
    if (static_cast<unsigned char>(c) >= 0x80) {
      ascii = false;
      break;
    }
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  if (ascii) return lower;
  const std::string valid = makeValidUtf8(text);
  gchar* down = g_utf8_strdown(valid.data(), static_cast<gssize>(valid.size()));
  std::string result(down);
  g_free(down);
  return result;
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  std::size_t pos = 0;
  for (std::size_t hit; (hit = text.find(separator, pos)) != std::string_view::npos; pos = hit + 1)
    parts.emplace_back(text.substr(pos, hit - pos));
  parts.emplace_back(text.substr(pos));
  return parts;
}

bool isValidUtf8(std::string_view bytes) {
  // GLib treats a NUL byte as ill-formed; here it is just a character.
  while (!bytes.empty()) {
    const gchar* stop = nullptr;
    if (g_utf8_validate_len(bytes.data(), bytes.size(), &stop)) return true;
    if (*stop != '\0') return false;
    bytes.remove_prefix(static_cast<std::size_t>(stop - bytes.data()) + 1);
  }
  return true;
}

std::string makeValidUtf8(std::string_view bytes) {
  if (isValidUtf8(bytes)) return std::string(bytes);
  // Walked here rather than by g_utf8_make_valid, which stops at a NUL byte.
  std::string out;
  out.reserve(bytes.size() + 16);
  while (!bytes.empty()) {
    const gchar* stop = nullptr;
    if (g_utf8_validate_len(bytes.data(), bytes.size(), &stop)) {
      out.append(bytes);
      break;
    }
    const auto valid = static_cast<std::size_t>(stop - bytes.data());
    out.append(bytes.substr(0, valid));
    out.append(*stop == '\0' ? std::string_view("\0", 1) : std::string_view("\xEF\xBF\xBD"));
    bytes.remove_prefix(valid + 1);
  }
  return out;
}

std::string stringWithObjects(std::string_view format,
                              std::initializer_list<std::string_view> objects) {
  std::string result;
  auto next = objects.begin();
  std::size_t start = 0;
  for (std::size_t slot = format.find("%@");
       slot != std::string_view::npos && next != objects.end(); slot = format.find("%@", start)) {
    result.append(format.substr(start, slot - start)).append(*next++);
    start = slot + 2;
  }
  result.append(format.substr(start));
  return result;
}

}  // namespace vesk
