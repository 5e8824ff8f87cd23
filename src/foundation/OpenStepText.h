#pragma once

// The one rule both the writer (Value::description) and the reader of the property-list text
// form follow: a string made only of these characters is written bare, anything else in
// quotes. Kept in one place so that every description reads back as the same value.

#include <string_view>

namespace vesk {

inline bool isOpenStepBareCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '$' || c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

// A string the text form may write without quotes: one bare word that the reader does not
// take for the start of a comment ("//server/share" would read as nothing at all).
inline bool isOpenStepBareString(std::string_view text) {
  if (text.empty() || text.starts_with("//") || text.starts_with("/*")) return false;
  for (const char c : text)
    if (!isOpenStepBareCharacter(c)) return false;
  return true;
}

}  // namespace vesk
