#include "foundation/Error.h"

#include <fmt/format.h>

#include <cstring>

namespace vesk {

std::string Error::localizedDescription() const {
  if (const std::string* text = userInfo_[kLocalizedDescriptionKey].string()) return *text;
  return fmt::format("The operation couldn\u2019t be completed. ({} error {}.)", domain_, code_);
}

std::string Error::description() const {
  return fmt::format("Error Domain={} Code={} \"{}\"", domain_, code_, localizedDescription());
}

Error posixError(int code) {
  return Error("NSPOSIXErrorDomain", code,
               Dictionary{{kLocalizedDescriptionKey, std::string(std::strerror(code))}});
}

}  // namespace vesk
