#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vesk {

// An operating-system version such as "10.9.5". Versions compare part by part as numbers,
// so 10.10 is newer than 10.9, and a missing part counts as 0 (10.7 equals 10.7.0).
class VESKOperatingSystem {
 public:
  explicit VESKOperatingSystem(std::string versionString);

  const std::string& versionString() const { return versionString_; }
  const std::vector<std::int64_t>& parts() const { return parts_; }

  // Negative, zero or positive as this version is older than, equal to or newer than other.
  int compare(const VESKOperatingSystem& other) const;
  bool isGreaterThanOrEqualToVersionString(const std::string& version) const;

  std::string description() const { return versionString_; }

 private:
  std::string versionString_;
  std::vector<std::int64_t> parts_;
};

}  // namespace vesk
