#pragma once

#include <map>
#include <string>
#include <string_view>

#include "restrictions/BlacklistedItem.h"

namespace vesk {

// The restricted-software list by each entry's final process pattern.
using Blacklist = std::map<std::string, BlacklistedItem, std::less<>>;

// Reads the restricted-software list that the daemon leaves for the agent. The agent never
// writes it. A list that cannot be read is an empty list, without a word: the daemon will
// write it again.
class BlacklistedSoftwareHelper {
 public:
  static Blacklist loadBlacklistedSoftware();
  // Every "ns2:blacklisted" element, anywhere, with a usable process; later entries replace
  // earlier ones with the same final pattern. Names are matched with their literal "ns2:"
  // prefix. No entity beyond XML's own is expanded and nothing is fetched.
  static Blacklist loadBlacklistedSoftwareFromXMLString(std::string_view xml);
};

}  // namespace vesk
