#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace vesk {

// Facts about the machine and this process, for every verb. Class operations only; any
// thread may call them. The computer name and IP address are cached until
// invalidateCachedData.
class VKEnvironmentInfo {
 public:
  // Where this program is installed; set by the entry point from argument 0 (nullopt when
  // that is not UTF-8).
  static void setApplicationLocation(std::optional<std::string> location);
  static std::optional<std::string> applicationLocation();

  static void invalidateCachedData();
  static std::string ipAddress();
  static pid_t getProcessId();
  // The computer's name from the system configuration, read through `defaults`; "No Name"
  // when it has none.
  static std::string getComputerName();

  // Makes the real user id the effective one where the system allows it (a set-user-id-root
  // program becomes root through and through) and answers the real user id.
  static uid_t uidCheck();
  static bool isRunningAsRoot();
  // Throws "VESK Root User" unless running as root.
  static void rootCheck();

  // Throws "VESK OS Version" unless the running system is `version` or newer.
  static void osVersionCheck(const std::string& version);
  static void supportedOSCheck();
  static void lionOrGreaterCheck();
  static void mountainLionOrGreaterCheck();
  static bool isLionOrGreater();
  static bool isMountainLionOrGreater();

  static std::chrono::system_clock::time_point currentTime();
  // `uname -m`; "" when it fails.
  static std::string getArchitectureType();
};

}  // namespace vesk
