#include "foundation/VESKSystemInformation.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include "foundation/Paths.h"

namespace vesk {
namespace {

// Linux has no macOS version; report one that every version check accepts, so each check
// takes its branch for current systems.
constexpr const char* kLinuxReportedVersion = "14.0";

}  // namespace

VESKOperatingSystem VESKSystemInformation::currentOperatingSystem() const {
  if (auto version = secureEnvironmentValue("VESK_OS_VERSION"); version && !version->empty())
    return VESKOperatingSystem(*version);
  return VESKOperatingSystem(kLinuxReportedVersion);
}

std::string VESKSystemInformation::currentIPAddress() {
  std::string address = "127.0.0.1";
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return address;
  for (ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET) continue;
    if ((it->ifa_flags & IFF_UP) == 0 || (it->ifa_flags & IFF_LOOPBACK) != 0) continue;
    char text[INET_ADDRSTRLEN] = {};
    const auto* in = reinterpret_cast<const sockaddr_in*>(it->ifa_addr);
    if (inet_ntop(AF_INET, &in->sin_addr, text, sizeof text) != nullptr) {
      address = text;
      break;
    }
  }
  freeifaddrs(list);
  return address;
}

}  // namespace vesk
