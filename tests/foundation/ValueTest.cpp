#include <gtest/gtest.h>

#include "foundation/Error.h"
#include "foundation/Format.h"
#include "foundation/Value.h"

namespace vesk {
namespace {

TEST(ErrorText, FallsBackToTheDomainAndCodeWithoutALocalizedDescription) {
  const Error plain("com.vesksoftware.task.errors", 3);
  EXPECT_EQ(plain.localizedDescription(),
            "The operation couldn\u2019t be completed. (com.vesksoftware.task.errors error 3.)");
  EXPECT_EQ(plain.description(),
            "Error Domain=com.vesksoftware.task.errors Code=3 \"The operation couldn\u2019t be "
            "completed. (com.vesksoftware.task.errors error 3.)\"");

  const Error described("com.vesksoftware.expect.script.errors", -1000,
                        {{"NSLocalizedDescription", "spawn failed"}});
  EXPECT_EQ(described.localizedDescription(), "spawn failed");
  EXPECT_EQ(described.description(),
            "Error Domain=com.vesksoftware.expect.script.errors Code=-1000 \"spawn failed\"");
  EXPECT_EQ(fmt::format("{}", described), described.description());
}

TEST(ValueConversions, FollowThePlatformsStringAndNumberRules) {
  EXPECT_TRUE(Value("YES").boolValue());
  EXPECT_FALSE(Value("no").boolValue());
  EXPECT_TRUE(Value(2).boolValue());
  EXPECT_FALSE(Value().boolValue());
  EXPECT_EQ(Value(" 12 apples").intValue(), 12);
  EXPECT_EQ(Value(3.9).integerValue(), 3);
  EXPECT_EQ(Value(true).intValue(), 1);
  EXPECT_EQ(Value(static_cast<std::int64_t>(1) << 40).intValue(), 0);  // the low 32 bits
  EXPECT_DOUBLE_EQ(Value("2.5").doubleValue(), 2.5);
  EXPECT_EQ(Value(Array{}).intValue(), 0);
  EXPECT_EQ(Value(-4).stringValue(), "-4");
  EXPECT_EQ(Value().stringValue(), "");
}

TEST(ValueDescription, PrintsContainersInThePlatformsTextForm) {
  Dictionary inner{{"ComputerName", "Office Mac"}, {"Count", 3}};
  Dictionary outer{{"System", Value(inner)},
                   {"list", Value(Array{Value("a b"), Value(""), Value(true)})},
                   {"bytes", Value(Data{0x0a, 0x0b, 0x0c, 0x0d, 0xff})},
                   {"say", "\"hi\"\n"}};
  EXPECT_EQ(Value(outer).description(),
            "{\n"
            "    System = {\n"
            "        ComputerName = \"Office Mac\";\n"
            "        Count = 3;\n"
            "    };\n"
            "    bytes = <0a0b0c0d ff>;\n"
            "    list = (\n"
            "        \"a b\",\n"
            "        \"\",\n"
            "        1\n"
            "    );\n"
            "    say = \"\\\"hi\\\"\\n\";\n"
            "}");
  EXPECT_EQ(Value("plain text").description(), "plain text");
}

TEST(ValueSemantics, CopiesAreDeepAndEqualityLooksInside) {
  Dictionary original{{"a", Value(Dictionary{{"b", 1}})}};
  Value copy(original);
  copy.dictionary()->set("a", Value(Dictionary{{"b", 2}}));
  EXPECT_EQ(original.valueForKeyPath("a.b").integerValue(), 1);
  EXPECT_EQ(copy.dictionary()->valueForKeyPath("a.b").integerValue(), 2);
  EXPECT_FALSE(Value(original) == copy);
  EXPECT_TRUE(Value(original) == Value(Dictionary{{"a", Value(Dictionary{{"b", 1}})}}));
  EXPECT_FALSE(Value(1) == Value(1u));  // a signed and an unsigned integer are kept apart
  EXPECT_TRUE(original.valueForKeyPath("a.b.c").isNil());
  EXPECT_TRUE(original.valueForKeyPath("missing").isNil());
}

}  // namespace
}  // namespace vesk
