#include "foundation/Value.h"

#include <fmt/format.h>

#include "foundation/Error.h"
#include "foundation/OpenStepText.h"
#include "foundation/StringHelpers.h"

namespace vesk {
namespace {

const Value kNil;

// Strings inside containers are quoted unless they are one bare word, so that the text
// reads back as the same property list.
void appendQuotedIfNeeded(std::string& out, const std::string& text) {
  if (isOpenStepBareString(text)) {
    out += text;
    return;
  }
  out += '"';
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += fmt::format("\\U{:04x}", static_cast<unsigned>(c));
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

void appendIndent(std::string& out, int indent) {
  out.append(static_cast<std::size_t>(indent) * 4, ' ');
}

}  // namespace

Value::Value(Dictionary v) : v_(Box<Dictionary>(std::move(v))) {}
Value::Value(Error v) : v_(Box<Error>(std::move(v))) {}

bool Value::isNumber() const {
  const Type t = type();
  return t == Type::Bool || t == Type::Int || t == Type::UInt || t == Type::Double;
}

const Dictionary* Value::dictionary() const {
  const auto* box = std::get_if<Box<Dictionary>>(&v_);
  return box ? &**box : nullptr;
}

Dictionary* Value::dictionary() {
  auto* box = std::get_if<Box<Dictionary>>(&v_);
  return box ? &**box : nullptr;
}

const Error* Value::error() const {
  const auto* box = std::get_if<Box<Error>>(&v_);
  return box ? &**box : nullptr;
}

std::int64_t Value::integerValue() const {
  switch (type()) {
    case Type::Bool:
      return std::get<bool>(v_) ? 1 : 0;
    case Type::Int:
      return std::get<std::int64_t>(v_);
    case Type::UInt:
      return static_cast<std::int64_t>(std::get<std::uint64_t>(v_));
    case Type::Double: {
      const double d = std::get<double>(v_);
      if (!(d == d)) return 0;
      if (d >= 9.2233720368547758e18) return INT64_MAX;
      if (d <= -9.2233720368547758e18) return INT64_MIN;
      return static_cast<std::int64_t>(d);
    }
    case Type::String:
      return vesk::integerValue(std::get<std::string>(v_));
    default:
      return 0;
  }
}

std::int32_t Value::intValue() const {
  if (const std::string* s = string()) return vesk::intValue(*s);
  // Numbers narrow as a C cast does: the low 32 bits.
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(integerValue()));
}

std::uint64_t Value::unsignedIntegerValue() const {
  if (type() == Type::UInt) return std::get<std::uint64_t>(v_);
  return static_cast<std::uint64_t>(integerValue());
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::Double:
      return std::get<double>(v_);
    case Type::UInt:
      return static_cast<double>(std::get<std::uint64_t>(v_));
    case Type::String:
      return vesk::doubleValue(std::get<std::string>(v_));
    default:
      return static_cast<double>(integerValue());
  }
}

bool Value::boolValue() const {
  switch (type()) {
    case Type::String:
      return vesk::boolValue(std::get<std::string>(v_));
    case Type::Double:
      return std::get<double>(v_) != 0.0;
    case Type::UInt:
      return std::get<std::uint64_t>(v_) != 0;
    default:
      return integerValue() != 0;
  }
}

std::string Value::stringValue() const {
  if (const std::string* s = string()) return *s;
  if (isNil()) return "";
  return description();
}

std::string Value::description() const {
  std::string out;
  describeInto(out, 0, false);
  return out;
}

void Value::describeInto(std::string& out, int indent, bool nested) const {
  switch (type()) {
    case Type::Nil:
      out += "<null>";
      break;
    case Type::Bool:
      out += std::get<bool>(v_) ? "1" : "0";
      break;
    case Type::Int:
      out += std::to_string(std::get<std::int64_t>(v_));
      break;
    case Type::UInt:
      out += std::to_string(std::get<std::uint64_t>(v_));
      break;
    case Type::Double:
      out += fmt::format("{}", std::get<double>(v_));
      break;
    case Type::String:
      if (nested) {
        appendQuotedIfNeeded(out, std::get<std::string>(v_));
      } else {
        out += std::get<std::string>(v_);
      }
      break;
    case Type::Data: {
      const Data& bytes = std::get<Data>(v_);
      out += '<';
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0 && i % 4 == 0) out += ' ';
        out += fmt::format("{:02x}", bytes[i]);
      }
      out += '>';
      break;
    }
    case Type::Array: {
      const Array& items = std::get<Array>(v_);
      out += "(\n";
      for (std::size_t i = 0; i < items.size(); ++i) {
        appendIndent(out, indent + 1);
        items[i].describeInto(out, indent + 1, true);
        out += i + 1 < items.size() ? ",\n" : "\n";
      }
      appendIndent(out, indent);
      out += ')';
      break;
    }
    case Type::Dictionary:
      dictionary()->describeInto(out, indent);
      break;
    case Type::Error:
      if (nested) {
        appendQuotedIfNeeded(out, error()->description());
      } else {
        out += error()->description();
      }
      break;
  }
}

bool operator==(const Value& a, const Value& b) { return a.v_ == b.v_; }

const Value& Dictionary::operator[](std::string_view key) const {
  const Value* v = find(key);
  return v ? *v : kNil;
}

const Value* Dictionary::find(std::string_view key) const {
  auto it = items_.find(key);
  return it == items_.end() ? nullptr : &it->second;
}

const Value& Dictionary::valueForKeyPath(std::string_view keyPath) const {
  const Dictionary* current = this;
  while (true) {
    const std::size_t dot = keyPath.find('.');
    const Value& v = (*current)[keyPath.substr(0, dot)];
    if (dot == std::string_view::npos) return v;
    current = v.dictionary();
    if (current == nullptr) return kNil;
    keyPath.remove_prefix(dot + 1);
  }
}

void Dictionary::remove(std::string_view key) {
  auto it = items_.find(key);
  if (it != items_.end()) items_.erase(it);
}

std::string Dictionary::description() const {
  std::string out;
  describeInto(out, 0);
  return out;
}

void Dictionary::describeInto(std::string& out, int indent) const {
  out += "{\n";
  for (const auto& [key, value] : items_) {
    appendIndent(out, indent + 1);
    appendQuotedIfNeeded(out, key);
    out += " = ";
    value.describeInto(out, indent + 1, true);
    out += ";\n";
  }
  appendIndent(out, indent);
  out += '}';
}

}  // namespace vesk
