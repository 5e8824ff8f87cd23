#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace vesk {

class Value;
class Dictionary;
class Error;

using Array = std::vector<Value>;
using Data = std::vector<std::uint8_t>;

// A heap cell with value semantics: copying a Box copies what it holds. It lets Value hold
// the types that themselves hold Values.
template <typename T>
class Box {
 public:
  Box(T value) : ptr_(std::make_unique<T>(std::move(value))) {}
  Box(const Box& other) : ptr_(std::make_unique<T>(*other.ptr_)) {}
  Box(Box&&) noexcept = default;
  Box& operator=(const Box& other) {
    if (this != &other) ptr_ = std::make_unique<T>(*other.ptr_);
    return *this;
  }
  Box& operator=(Box&&) noexcept = default;
  ~Box() = default;

  T& operator*() { return *ptr_; }
  const T& operator*() const { return *ptr_; }
  T* operator->() { return ptr_.get(); }
  const T* operator->() const { return ptr_.get(); }
  friend bool operator==(const Box& a, const Box& b) { return *a == *b; }

 private:
  std::unique_ptr<T> ptr_;
};

// One value of a notification's userInfo or of a property list: nil, a boolean, a signed or
// unsigned integer, a double, a string (UTF-8), bytes, an array, a dictionary or an error.
class Value {
 public:
  enum class Type { Nil, Bool, Int, UInt, Double, String, Data, Array, Dictionary, Error };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool v) : v_(v) {}
  Value(int v) : v_(static_cast<std::int64_t>(v)) {}
  Value(long v) : v_(static_cast<std::int64_t>(v)) {}
  Value(long long v) : v_(static_cast<std::int64_t>(v)) {}
  Value(unsigned v) : v_(static_cast<std::uint64_t>(v)) {}
  Value(unsigned long v) : v_(static_cast<std::uint64_t>(v)) {}
  Value(unsigned long long v) : v_(static_cast<std::uint64_t>(v)) {}
  Value(double v) : v_(v) {}
  Value(const char* v) : v_(std::string(v)) {}
  Value(std::string v) : v_(std::move(v)) {}
  Value(std::string_view v) : v_(std::string(v)) {}
  Value(Data v) : v_(std::move(v)) {}
  Value(Array v) : v_(std::move(v)) {}
  Value(Dictionary v);
  Value(Error v);

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNil() const { return type() == Type::Nil; }
  bool isString() const { return type() == Type::String; }
  bool isNumber() const;  // Bool, Int, UInt or Double, as the platform's number objects
  bool isArray() const { return type() == Type::Array; }
  bool isDictionary() const { return type() == Type::Dictionary; }

  // Typed access; each returns nullptr when the value is of another type.
  const std::string* string() const { return std::get_if<std::string>(&v_); }
  const Data* data() const { return std::get_if<Data>(&v_); }
  const Array* array() const { return std::get_if<Array>(&v_); }
  Array* array() { return std::get_if<Array>(&v_); }
  const Dictionary* dictionary() const;
  Dictionary* dictionary();
  const Error* error() const;

  // Conversions as the platform's strings and numbers answer them. A string converts by its
  // text (see StringHelpers); a number by its value; anything else gives 0 / NO / "".
  std::int32_t intValue() const;
  std::int64_t integerValue() const;
  std::uint64_t unsignedIntegerValue() const;
  double doubleValue() const;
  bool boolValue() const;
  // The text of a string, the digits of a number; otherwise the description.
  std::string stringValue() const;

  // A readable text form: strings as they are; containers in the platform's text form
  // ("{\n    key = value;\n}", "(\n    a,\n    b\n)"), which the property-list reader parses
  // back; data as "<0a1b>"; booleans as 1 and 0.
  std::string description() const;

  friend bool operator==(const Value& a, const Value& b);

 private:
  friend class Dictionary;
  void describeInto(std::string& out, int indent, bool nested) const;

  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Data, Array,
               Box<Dictionary>, Box<Error>>
      v_;
};

// A string-keyed dictionary. Keys are kept sorted, so descriptions and property lists come
// out the same every time.
class Dictionary {
 public:
  using Map = std::map<std::string, Value, std::less<>>;

  Dictionary() = default;
  Dictionary(std::initializer_list<std::pair<const std::string, Value>> items) : items_(items) {}

  // The value under key, or nil.
  const Value& operator[](std::string_view key) const;
  const Value* find(std::string_view key) const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  // Walks nested dictionaries along a dotted path ("System.ComputerName"); nil when a step
  // is missing or not a dictionary.
  const Value& valueForKeyPath(std::string_view keyPath) const;

  void set(std::string key, Value value) {
    items_.insert_or_assign(std::move(key), std::move(value));
  }
  void remove(std::string_view key);

  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  Map::const_iterator begin() const { return items_.begin(); }
  Map::const_iterator end() const { return items_.end(); }

  std::string description() const;

  friend bool operator==(const Dictionary& a, const Dictionary& b) { return a.items_ == b.items_; }

 private:
  friend class Value;
  void describeInto(std::string& out, int indent) const;

  Map items_;
};

}  // namespace vesk

// Value holds errors by value, so whoever uses a Value needs the whole Error.
#include "foundation/Error.h"  // IWYU pragma: export
