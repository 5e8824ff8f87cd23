#include "foundation/Paths.h"

#include <cstdlib>

namespace vesk {

std::optional<std::string> secureEnvironmentValue(const char* name) {
  const char* value = ::secure_getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

void forgetIgnoredOverrides() {
  for (const char* name : {"VESK_ROOT", "VESK_OS_VERSION"}) {
    // Present but refused by secure_getenv: this run is set-user-id.
    if (::getenv(name) != nullptr && ::secure_getenv(name) == nullptr) ::unsetenv(name);
  }
}

std::string fsPath(std::string_view path) {
  std::optional<std::string> root = secureEnvironmentValue("VESK_ROOT");
  if (!root || root->empty()) return std::string(path);
  while (root->size() > 1 && root->back() == '/') root->pop_back();
  if (!path.empty() && path.front() != '/') root->push_back('/');
  return *root + std::string(path);
}

std::string toolPath(std::string_view path) {
  if (path == "/bin/launchctl") return fsPath("/usr/local/vesk/bin/launchctl");
  if (path == "/usr/bin/defaults") return fsPath("/usr/local/vesk/bin/vesk-defaults");
  return fsPath(path);
}

std::string stringByAppendingPathComponent(std::string_view base, std::string_view component) {
  std::string joined(base);
  if (!joined.empty()) joined.push_back('/');
  joined.append(component);
  std::string path;
  path.reserve(joined.size());
  for (const char c : joined) {
    if (c == '/' && !path.empty() && path.back() == '/') continue;
    path.push_back(c);
  }
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string lastPathComponent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

}  // namespace vesk
