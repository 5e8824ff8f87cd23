#include "platform/ProcessSecurity.h"

#include <string_view>

extern char** environ;

namespace vesk {

std::vector<std::string> inheritableEnvironment() {
  std::vector<std::string> environment;
  const bool untrusted = isSetUserIdExecution();
  if (untrusted) environment.emplace_back("PATH=/usr/bin:/bin:/usr/sbin:/sbin");
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view variable(*entry);
    if (untrusted) {
      const std::string_view name = variable.substr(0, variable.find('='));
      const bool locale = name == "LANG" || name.starts_with("LC_");
      if (!(name == "TERM" || (locale && variable.find('/') == std::string_view::npos))) continue;
    }
    environment.emplace_back(variable);
  }
  return environment;
}

}  // namespace vesk
