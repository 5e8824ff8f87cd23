#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "config/VKDefaultsWrapper.h"

namespace vesk {

// The client's global log level, read from the management preferences: 0 (debug: the log
// file also gets the extreme lines) or 1 (normal). The logger asks once per process.
class VKLogLevelSettings {
 public:
  // Reads "global_log_level" through the defaults tool.
  int readGlobalLogLevel();
  // 0 when the text, lower-cased and stripped of white space and line ends, is "debug";
  // 1 for anything else, other level names and nullopt included: there are only two.
  static int logLevelTypeFromString(const std::optional<std::string_view>& string);

  VKDefaultsWrapper& defaultsWrapper() { return defaultsWrapper_; }

 private:
  VKDefaultsWrapper defaultsWrapper_;
};

}  // namespace vesk
