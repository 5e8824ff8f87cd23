// The restricted list the daemon leaves in a file, and matching its entries against paths.

#include <cstddef>
#include <cstdint>
#include <string>

#include "restrictions/BlacklistedSoftwareHelper.h"
#include "restrictions/EnforceRestrictionsAgentStrategy.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string path = text.substr(0, 256);
  for (const auto& [key, item] :
       vesk::BlacklistedSoftwareHelper::loadBlacklistedSoftwareFromXMLString(text)) {
    vesk::EnforceRestrictionsAgentStrategy::blacklistProcess(key, path, false);
    vesk::EnforceRestrictionsAgentStrategy::blacklistProcess(key, path, true);
    vesk::EnforceRestrictionsAgentStrategy::blacklistProcess(key, key, item.requireExactMatch());
    (void)item.description();
  }
  return 0;
}
