#include "foundation/VESKOperatingSystem.h"

#include "foundation/StringHelpers.h"

namespace vesk {

VESKOperatingSystem::VESKOperatingSystem(std::string versionString)
    : versionString_(std::move(versionString)) {
  // Each dotted part reads as its leading number, so "10.9.5 (13F34)" is 10.9.5.
  for (const std::string& part : split(strip(versionString_), '.'))
    parts_.push_back(integerValue(part));
}

int VESKOperatingSystem::compare(const VESKOperatingSystem& other) const {
  const std::size_t n = std::max(parts_.size(), other.parts_.size());
  for (std::size_t i = 0; i < n; ++i) {
    const std::int64_t a = i < parts_.size() ? parts_[i] : 0;
    const std::int64_t b = i < other.parts_.size() ? other.parts_[i] : 0;
    if (a != b) return a < b ? -1 : 1;
  }
  return 0;
}

bool VESKOperatingSystem::isGreaterThanOrEqualToVersionString(const std::string& version) const {
  return compare(VESKOperatingSystem(version)) >= 0;
}

}  // namespace vesk
