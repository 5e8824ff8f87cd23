#pragma once

// The one rule both the writer (Value::description) and the reader of the property-list text
// form follow: a string made only of these characters is written bare, anything else in
// quotes. Kept in one place so that every description reads back as the same value.

namespace vesk {

inline bool isOpenStepBareCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '$' || c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

}  // namespace vesk
