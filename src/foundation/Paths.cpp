#include "foundation/Paths.h"

#include <cstdlib>

namespace vesk {

std::optional<std::string> secureEnvironmentValue(const char* name) {
  const char* value = ::secure_getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::string fsPath(std::string_view path) {
  std::optional<std::string> root = secureEnvironmentValue("VESK_ROOT");
  if (!root || root->empty()) return std::string(path);
  while (root->size() > 1 && root->back() == '/') root->pop_back();
  if (!path.empty() && path.front() != '/') root->push_back('/');
  return *root + std::string(path);
}

}  // namespace vesk
