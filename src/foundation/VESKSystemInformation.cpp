#include "foundation/VESKSystemInformation.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cctype>

#include "foundation/FileManager.h"
#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"

namespace vesk {
namespace {

// Linux has no macOS version; report one that every version check accepts, so each check
// takes its branch for current systems.
constexpr const char* kLinuxReportedVersion = "14.0";

// The 32 hex digits of `text`, upper-case and grouped 8-4-4-4-12, when it holds exactly 32 hex
// digits (dashes where a UUID has them are allowed); nullopt otherwise. A firmware that leaves
// the UUID unset fills it with one digit; that identifies nothing.
std::optional<std::string> uuidFromHex(std::string_view text) {
  std::string digits;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (std::isxdigit(static_cast<unsigned char>(c)) != 0)
      digits += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    else if (c != '-' || (i != 8 && i != 13 && i != 18 && i != 23))
      return std::nullopt;
  }
  if (digits.size() != 32 || digits.find_first_not_of(digits[0]) == std::string::npos)
    return std::nullopt;
  return digits.substr(0, 8) + "-" + digits.substr(8, 4) + "-" + digits.substr(12, 4) + "-" +
         digits.substr(16, 4) + "-" + digits.substr(20);
}

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

std::optional<std::string> VESKSystemInformation::hardwareUUID() {
  // The firmware's UUID is readable by root only; the machine id by everyone.
  for (const char* source : {"/sys/class/dmi/id/product_uuid", "/etc/machine-id"})
    if (const std::optional<std::string> text = contentsAtPath(fsPath(source)))
      if (std::optional<std::string> uuid = uuidFromHex(strip(*text))) return uuid;
  return std::nullopt;
}

}  // namespace vesk
