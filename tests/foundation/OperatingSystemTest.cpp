#include <gtest/gtest.h>

#include "foundation/VESKOperatingSystem.h"

namespace vesk {
namespace {

TEST(OperatingSystemVersion, ComparesPartByPartAsNumbers) {
  const VESKOperatingSystem yosemite("10.10");
  EXPECT_GT(yosemite.compare(VESKOperatingSystem("10.9")), 0);
  EXPECT_TRUE(yosemite.isGreaterThanOrEqualToVersionString("10.9.5"));
  EXPECT_FALSE(VESKOperatingSystem("10.9").isGreaterThanOrEqualToVersionString("10.10"));

  EXPECT_EQ(VESKOperatingSystem("10.7").compare(VESKOperatingSystem("10.7.0")), 0);
  EXPECT_TRUE(VESKOperatingSystem("10.7").isGreaterThanOrEqualToVersionString("10.7.0"));
  EXPECT_TRUE(VESKOperatingSystem("10.7.0").isGreaterThanOrEqualToVersionString("10.7"));
  EXPECT_FALSE(VESKOperatingSystem("10.6.8").isGreaterThanOrEqualToVersionString("10.7.0"));
  EXPECT_TRUE(VESKOperatingSystem("11").isGreaterThanOrEqualToVersionString("10.99.99"));
  EXPECT_TRUE(VESKOperatingSystem("14.0").isGreaterThanOrEqualToVersionString("10.8.0"));
}

TEST(OperatingSystemVersion, ReadsEachPartByItsLeadingNumber) {
  EXPECT_EQ(VESKOperatingSystem("10.9.5 (13F34)").parts(), (std::vector<std::int64_t>{10, 9, 5}));
  EXPECT_EQ(VESKOperatingSystem(" 10.8\n").parts(), (std::vector<std::int64_t>{10, 8}));
  // Nonsense reads as zeros rather than failing.
  EXPECT_EQ(VESKOperatingSystem("x.y").compare(VESKOperatingSystem("0")), 0);
  EXPECT_EQ(VESKOperatingSystem("").compare(VESKOperatingSystem("0.0")), 0);
}

}  // namespace
}  // namespace vesk
