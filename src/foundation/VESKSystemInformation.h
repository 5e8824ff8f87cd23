#pragma once

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
};

}  // namespace vesk
