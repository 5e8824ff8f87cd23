#include "config/VKLogLevelSettings.h"

#include <algorithm>

#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"

namespace vesk {

int VKLogLevelSettings::readGlobalLogLevel() {
  return logLevelTypeFromString(defaultsWrapper_.readStringDefault(
      "global_log_level", fsPath("/Library/Preferences/com.vesksoftware.vesk.plist")));
}

int VKLogLevelSettings::logLevelTypeFromString(const std::optional<std::string_view>& string) {
  if (!string) return 1;
  std::string lower(*string);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  });
  return strip(lower) == "debug" ? 0 : 1;
}

}  // namespace vesk
