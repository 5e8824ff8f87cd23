#include <gtest/gtest.h>

#include <stdexcept>

#include "agent/EntryPoint.h"
#include "foundation/Exception.h"

namespace vesk {
namespace {

std::string printedBy(const std::function<int()>& body, int expectedStatus) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(runGuarded(body), expectedStatus);
  return testing::internal::GetCapturedStdout();
}

TEST(EntryGuard, PrintsOnlyTheReasonInsideOneOfTheTwoErrorTexts) {
  EXPECT_EQ(
      printedBy([]() -> int { throw InvalidSyntaxException("Bad Syntax", "-target needs a path"); },
                1),
      "\nThere is an error in your syntax.\n\n     Error: -target needs a path\n\nType \"vesk help\" for more information.\n\n");
  EXPECT_EQ(printedBy([]() -> int { throw Exception("VESK Root User", "must be root"); }, 1),
            "\nThere was an error.\n\n     must be root\n\n");
  EXPECT_EQ(printedBy([]() -> int { throw std::runtime_error("disk full"); }, 1),
            "\nThere was an error.\n\n     disk full\n\n");
  EXPECT_EQ(printedBy([] { return 5; }, 5), "");
}

}  // namespace
}  // namespace vesk
