// The text form of property lists, as `defaults read` prints containers:
//
//   {
//       Name = "Office Mac";
//       Sizes = (1, 2);
//       Blob = <0a0b0c0d>;
//   }
//
// Every scalar reads as a string, as the platform's own reader does. Quoted strings take the
// escapes \n \t \r \a \b \f \v \\ \" \', \Uxxxx (UTF-16, surrogate pairs joined) and \ooo
// (octal); comments of both C forms are skipped. Newer systems print data as
// "{length = 3, bytes = 0x0a0b0c}", which is read as data too.

#include <fmt/format.h>

#include <cstdint>

#include "foundation/OpenStepText.h"
#include "foundation/PropertyList.h"
#include "foundation/PropertyListLimits.h"

namespace vesk {
namespace {

class OpenStepParser {
 public:
  explicit OpenStepParser(std::string_view text) : text_(text) {}

  Value parseDocument(Error* error) {
    skipSpace();
    Value root;
    if (atEnd()) {
      fail("The property list is empty.");
    } else {
      root = parseValue(0);
      skipSpace();
      if (failure_.empty() && !atEnd()) fail("Junk after the property list.");
    }
    if (!failure_.empty()) {
      setError(error, Error(kPropertyListErrorDomain, kPropertyListReadCorruptError,
                            {{kLocalizedDescriptionKey,
                              Value(fmt::format("{} (at offset {})", failure_, failAt_))}}));
      return Value();
    }
    return root;
  }

 private:
  static int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  bool atEnd() const { return pos_ >= text_.size(); }
  char peek() const { return atEnd() ? '\0' : text_[pos_]; }

  Value fail(std::string why) {
    if (failure_.empty()) {
      failure_ = std::move(why);
      failAt_ = pos_;
    }
    return Value();
  }

  void skipSpace() {
    while (!atEnd()) {
      const char c = text_[pos_];
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f') {
        ++pos_;
      } else if (text_.substr(pos_, 2) == "//") {
        while (!atEnd() && text_[pos_] != '\n') ++pos_;
      } else if (text_.substr(pos_, 2) == "/*") {
        const std::size_t close = text_.find("*/", pos_ + 2);
        pos_ = close == std::string_view::npos ? text_.size() : close + 2;
      } else {
        return;
      }
    }
  }

  bool expect(char c) {
    skipSpace();
    if (peek() != c) {
      fail(fmt::format("Expected '{}'.", c));
      return false;
    }
    ++pos_;
    return true;
  }

  Value parseValue(int depth) {
    if (depth > kMaxPropertyListDepth) return fail("The property list is nested too deeply.");
    skipSpace();
    switch (peek()) {
      case '{':
        return parseDictionary(depth);
      case '(':
        return parseArray(depth);
      case '<':
        return parseData();
      case '"':
      case '\'':
        return parseQuoted();
      default:
        if (isOpenStepBareCharacter(peek())) return Value(parseBare());
        return fail("Unexpected character.");
    }
  }

  std::string parseBare() {
    const std::size_t start = pos_;
    while (!atEnd() && isOpenStepBareCharacter(text_[pos_])) ++pos_;
    return std::string(text_.substr(start, pos_ - start));
  }

  Value parseDictionary(int depth) {
    ++pos_;  // '{'
    if (Value data; tryParseDescribedData(data)) return data;
    Dictionary dict;
    while (true) {
      skipSpace();
      if (atEnd()) return fail("Unterminated dictionary.");
      if (peek() == '}') {
        ++pos_;
        return Value(std::move(dict));
      }
      Value key = (peek() == '"' || peek() == '\'') ? parseQuoted()
                  : isOpenStepBareCharacter(peek()) ? Value(parseBare())
                                                    : fail("Expected a dictionary key.");
      if (!failure_.empty()) return Value();
      if (!expect('=')) return Value();
      Value item = parseValue(depth + 1);
      if (!failure_.empty()) return Value();
      if (!expect(';')) return Value();
      dict.set(*key.string(), std::move(item));
    }
  }

  Value parseArray(int depth) {
    ++pos_;  // '('
    Array items;
    skipSpace();
    if (peek() == ')') {
      ++pos_;
      return Value(std::move(items));
    }
    while (true) {
      items.push_back(parseValue(depth + 1));
      if (!failure_.empty()) return Value();
      skipSpace();
      if (peek() == ',') {
        ++pos_;
        skipSpace();
        if (peek() != ')') continue;  // a trailing comma is allowed
      }
      if (!expect(')')) return Value();
      return Value(std::move(items));
    }
  }

  Value parseData() {
    ++pos_;  // '<'
    Data bytes;
    int high = -1;
    while (true) {
      skipSpace();
      if (atEnd()) return fail("Unterminated data.");
      const char c = text_[pos_++];
      if (c == '>') break;
      const int d = hexDigit(c);
      if (d < 0) return fail("Bad character in data.");
      if (high < 0) {
        high = d;
      } else {
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + d));
        high = -1;
      }
    }
    if (high >= 0) return fail("Data with an odd number of digits.");
    return Value(std::move(bytes));
  }

  // "{length = N, bytes = 0x0a0b ... 0c0d}", with "..." where the printer elided the middle;
  // an elided form cannot be read back and is refused.
  bool tryParseDescribedData(Value& out) {
    const std::size_t start = pos_;
    auto word = [&](std::string_view w) {
      skipSpace();
      if (text_.substr(pos_, w.size()) != w) return false;
      pos_ += w.size();
      return true;
    };
    if (!word("length") || !word("=")) {
      pos_ = start;
      return false;
    }
    skipSpace();
    const std::string length = parseBare();
    if (length.empty() || !word(",") || !word("bytes") || !word("=") || !word("0x")) {
      pos_ = start;
      return false;
    }
    Data bytes;
    while (pos_ + 1 < text_.size() && hexDigit(text_[pos_]) >= 0 &&
           hexDigit(text_[pos_ + 1]) >= 0) {
      bytes.push_back(
          static_cast<std::uint8_t>(hexDigit(text_[pos_]) * 16 + hexDigit(text_[pos_ + 1])));
      pos_ += 2;
    }
    if (!word("}") || std::to_string(bytes.size()) != length) {
      fail("Unreadable data description.");
      return true;
    }
    out = Value(std::move(bytes));
    return true;
  }

  static void appendUtf8(std::string& out, std::uint32_t cp) {
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

  std::uint32_t readHex4() {
    std::uint32_t v = 0;
    for (int i = 0; i < 4 && !atEnd() && hexDigit(peek()) >= 0; ++i)
      v = v * 16 + static_cast<std::uint32_t>(hexDigit(text_[pos_++]));
    return v;
  }

  Value parseQuoted() {
    const char quote = text_[pos_++];
    std::string out;
    while (true) {
      if (atEnd()) return fail("Unterminated string.");
      const char c = text_[pos_++];
      if (c == quote) return Value(std::move(out));
      if (c != '\\') {
        out += c;
        continue;
      }
      if (atEnd()) return fail("Unterminated string.");
      const char e = text_[pos_++];
      switch (e) {
        case 'n':
          out += '\n';
          break;
        case 't':
          out += '\t';
          break;
        case 'r':
          out += '\r';
          break;
        case 'a':
          out += '\a';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'v':
          out += '\v';
          break;
        case 'U':
        case 'u': {
          std::uint32_t cp = readHex4();
          if (cp >= 0xD800 && cp < 0xDC00 && text_.substr(pos_, 2) == "\\U") {
            const std::size_t save = pos_;
            pos_ += 2;
            const std::uint32_t low = readHex4();
            if (low >= 0xDC00 && low < 0xE000) {
              cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
            } else {
              pos_ = save;
            }
          }
          if (cp >= 0xD800 && cp < 0xE000) cp = 0xFFFD;  // a lone surrogate
          appendUtf8(out, cp);
          break;
        }
        default:
          if (e >= '0' && e <= '7') {
            std::uint32_t v = static_cast<std::uint32_t>(e - '0');
            for (int i = 0; i < 2 && peek() >= '0' && peek() <= '7'; ++i)
              v = v * 8 + static_cast<std::uint32_t>(text_[pos_++] - '0');
            appendUtf8(out, v);
          } else {
            out += e;  // \\ \" \' and any other escaped character stand for themselves
          }
      }
    }
  }

  std::string_view text_;
  std::size_t pos_ = 0;
  std::string failure_;
  std::size_t failAt_ = 0;
};

}  // namespace

Value propertyListFromOpenStepText(std::string_view text, Error* error) {
  return OpenStepParser(text).parseDocument(error);
}

}  // namespace vesk
