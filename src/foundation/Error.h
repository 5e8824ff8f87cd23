#pragma once

#include <cstdint>
#include <string>

#include "foundation/Value.h"

namespace vesk {

// The key under which an error carries the text that localizedDescription() answers.
inline constexpr const char* kLocalizedDescriptionKey = "NSLocalizedDescription";

// A failure inside a call, returned through an `Error* error` out-argument: a domain, an
// integer code and a userInfo dictionary.
class Error {
 public:
  Error() = default;
  Error(std::string domain, std::int64_t code, Dictionary userInfo = {})
      : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  const Dictionary& userInfo() const { return userInfo_; }

  // The userInfo's "NSLocalizedDescription" when there is one; otherwise
  // "The operation couldn’t be completed. (DOMAIN error CODE.)".
  std::string localizedDescription() const;
  // Error Domain=DOMAIN Code=CODE "LOCALIZED DESCRIPTION"
  std::string description() const;

  friend bool operator==(const Error& a, const Error& b) {
    return a.domain_ == b.domain_ && a.code_ == b.code_ && a.userInfo_ == b.userInfo_;
  }

 private:
  std::string domain_;
  std::int64_t code_ = 0;
  Dictionary userInfo_;
};

// An error of the system's kind for errno `code`, described as the C library describes it.
Error posixError(int code);

// Stores an error into an optional out-argument.
inline void setError(Error* out, Error error) {
  if (out != nullptr) *out = std::move(error);
}

}  // namespace vesk
