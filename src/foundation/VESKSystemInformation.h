#pragma once

#include <optional>
#include <string>

#include "foundation/VESKOperatingSystem.h"

namespace vesk {

// Facts about the machine the client runs on.
class VESKSystemInformation {
 public:
  // The version of the running operating system. VESK_OS_VERSION overrides it (tests and the
  // demo reach the branches for old systems that way); a set-user-id run ignores it.
  VESKOperatingSystem currentOperatingSystem() const;

  // An IPv4 address of the first interface that is up and not the loopback; the loopback
  // address when there is none.
  static std::string currentIPAddress();
  // The computer's hardware UUID in its usual form, upper-case hex in groups of 8-4-4-4-12:
  // the firmware's product UUID where this process may read it, else the system's machine id
  // written that way; nullopt when there is neither.
  static std::optional<std::string> hardwareUUID();
};

}  // namespace vesk
