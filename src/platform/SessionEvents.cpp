#include "platform/SessionEvents.h"

#include "foundation/VESKSystemInformation.h"

namespace vesk {

std::string logoutNotificationName() {
  return VESKSystemInformation().currentOperatingSystem().isGreaterThanOrEqualToVersionString(
             "10.9")
             ? "com.apple.logoutContinued"
             : "com.apple.userWillLogOut";
}

}  // namespace vesk
