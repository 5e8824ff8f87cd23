// Property lists in each form (XML, binary, the text form), and the management preferences
// read from one. A value read from the text form must read back the same from its description.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "config/VESKPrefsFile.h"
#include "foundation/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const vesk::Value value = vesk::propertyListFromBytes(bytes);
  if (!value.isNil()) {
    (void)vesk::xmlPropertyList(value);
    (void)vesk::binaryPropertyList(value);
    // Containers of the text form print as the text form (a lone string prints bare).
    const vesk::Value text = vesk::propertyListFromOpenStepText(bytes);
    if ((text.isDictionary() || text.isArray()) &&
        vesk::propertyListFromBytes(text.description()) != text)
      std::abort();
  }
  vesk::VESKPrefsFile::withoutLoadingData().loadPlistData(bytes);
  return 0;
}
