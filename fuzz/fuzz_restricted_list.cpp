// The restricted list the daemon leaves in a file, and matching its entries against paths.

#include <fnmatch.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "foundation/StringHelpers.h"
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
    // A pattern compared as text must answer as the shell-pattern match would.
    const auto prepared = vesk::EnforceRestrictionsAgentStrategy::preparePattern(key);
    const std::string subject = vesk::lowercaseString(path);
    if (!prepared.overBroad &&
        prepared.matches(subject) != (::fnmatch(prepared.pattern.c_str(), subject.c_str(), 0) == 0))
      std::abort();
  }
  return 0;
}
