#pragma once

#include <exception>
#include <string>
#include <utility>

namespace vesk {

// A failure that the caller must see: a name ("Command Timeout") and a reason, which is what
// the entry point prints.
class Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason)
      : name_(std::move(name)), reason_(std::move(reason)) {}

  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }
  std::string description() const { return reason_; }
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
};

// Raised where a command rejects its arguments; the entry point prints it as a syntax error.
class InvalidSyntaxException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace vesk
