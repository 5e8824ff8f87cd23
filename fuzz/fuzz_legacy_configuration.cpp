// The legacy configuration file ("/private/etc/vesk.conf") and the preferences read from it.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "config/VESKPrefsFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  (void)vesk::readLegacyConfiguration(bytes);
  vesk::VESKPrefsFile preferences = vesk::VESKPrefsFile::withoutLoadingData();
  preferences.loadLegacyData(bytes);
  (void)preferences.ksvUrl();
  return 0;
}
