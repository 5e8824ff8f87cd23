#include "config/VKLogLevelSettings.h"

#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"

namespace vesk {

int VKLogLevelSettings::readGlobalLogLevel() {
  return logLevelTypeFromString(defaultsWrapper_.readStringDefault(
      "global_log_level", fsPath("/Library/Preferences/com.vesksoftware.vesk.plist")));
}

int VKLogLevelSettings::logLevelTypeFromString(const std::optional<std::string_view>& string) {
  if (!string) return 1;
  return strip(lowercaseString(*string)) == "debug" ? 0 : 1;
}

}  // namespace vesk
