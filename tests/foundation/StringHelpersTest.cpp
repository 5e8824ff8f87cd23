#include <gtest/gtest.h>

#include <string>

#include "foundation/StringHelpers.h"

namespace vesk {
namespace {

TEST(StringHelpers, IsNumericAcceptsSignedDecimalsAndALoneDashButNothingElse) {
  for (const char* numeric : {"-5", "3.", ".5", "-", "0", "-0.25", " 42 ", "\t-7\n", "-3."})
    EXPECT_TRUE(isNumeric(numeric)) << '"' << numeric << '"';
  for (const char* other :
       {"", "   ", "abc", "1e5", "--5", "1.2.3", "+5", "5-", ".", "-.", "1 2", "-verbose", "0x10"})
    EXPECT_FALSE(isNumeric(other)) << '"' << other << '"';
}

TEST(StringHelpers, BoolValueReadsTheFirstSignificantCharacter) {
  for (const char* yes : {"YES", "yes", "true", "True", "1", "0001", "+1", "-7", "  y", "9lives"})
    EXPECT_TRUE(boolValue(yes)) << '"' << yes << '"';
  for (const char* no : {"no", "NO", "0", "", "false", "000", "-0", " ", "abc", "+"})
    EXPECT_FALSE(boolValue(no)) << '"' << no << '"';
}

TEST(StringHelpers, NumberConversionsStopAtTheFirstNonDigitAndSaturate) {
  const std::pair<const char*, int> ints[] = {{"  42abc", 42},
                                              {"-17", -17},
                                              {"+8", 8},
                                              {"abc", 0},
                                              {"", 0},
                                              {"3.9", 3},
                                              {"- 5", 0},
                                              {"99999999999", INT32_MAX},
                                              {"-99999999999", INT32_MIN},
                                              {"-2147483648", INT32_MIN}};
  for (const auto& [text, value] : ints) EXPECT_EQ(intValue(text), value) << text;
  EXPECT_EQ(integerValue("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(integerValue("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(integerValue("123456789012"), 123456789012);
  EXPECT_EQ(integerValue(std::string(100000, '9')), INT64_MAX);
  // Doubles: plain decimals only.
  const std::pair<const char*, double> doubles[] = {
      {" 1.5e3x", 1500.0}, {"-.5", -0.5},  {"7.", 7.0}, {"2e", 2.0},
      {"nan", 0.0},        {"0x1p3", 0.0}, {".", 0.0}};
  for (const auto& [text, value] : doubles) EXPECT_DOUBLE_EQ(doubleValue(text), value) << text;
}

TEST(StringHelpers, TrimKeepsLineEndsWhileStripRemovesThem) {
  EXPECT_EQ(trim(" \tword\t "), "word");
  EXPECT_EQ(trim("\nword\n"), "\nword\n");
  EXPECT_EQ(strip("\r\n word \n\t"), "word");
  EXPECT_EQ(strip("\u00a0\u2028word\u3000"), "word");
  EXPECT_EQ(strip("a b"), "a b");
  EXPECT_TRUE(isEmptyAfterTrim(" \n\t"));
  EXPECT_FALSE(isEmptyAfterTrim(" x "));
  // Ill-formed text is trimmed at ASCII blanks only, never inside a byte sequence.
  EXPECT_EQ(strip(" \xff\xfe \n"), "\xff\xfe");
  EXPECT_EQ(trimTrailingCharacters("/Volumes/Disk///", "/"), "/Volumes/Disk");
  EXPECT_EQ(trimTrailingCharacters("//a", "/"), "//a");
}

TEST(StringHelpers, FindValueBetweenTakesTheIndexedStartMarker) {
  const std::string text = "x<exitCode>3</exitCode>y<exitCode>42</exitCode>";
  EXPECT_EQ(findValueBetween(text, "<exitCode>", "</exitCode>", 0), "3");
  EXPECT_EQ(findValueBetween(text, "<exitCode>", "</exitCode>", 1), "42");
  EXPECT_EQ(findValueBetween(text, "<exitCode>", "</exitCode>", 2), std::nullopt);
  EXPECT_EQ(findValueBetween("<a>open", "<a>", "</a>", 0), std::nullopt);
  EXPECT_EQ(findValueBetween("<a></a>", "<a>", "</a>", 0), "");
}

TEST(StringHelpers, ReducingIdenticalLinesShortensOnlyRunsThatReachTheCount) {
  EXPECT_EQ(stringByReducingConsecutiveIdenticalLines("a\na\na\na\nb", 5), "a\na\na\na\nb");
  EXPECT_EQ(stringByReducingConsecutiveIdenticalLines("a\na\na\na\na\nb", 5),
            "a\n[previous line repeated 4 more times]\nb");
  EXPECT_EQ(stringByReducingConsecutiveIdenticalLines("x\nb\nb\nb\n", 3),
            "x\nb\n[previous line repeated 2 more times]\n");
  EXPECT_EQ(stringByReducingConsecutiveIdenticalLines("", 5), "");
  EXPECT_EQ(stringByReducingConsecutiveIdenticalLines("a\na", 1), "a\na");
}

TEST(StringHelpers, Utf8ValidityAndRepair) {
  EXPECT_TRUE(isValidUtf8("caf\u00e9"));
  EXPECT_TRUE(isValidUtf8(std::string("a\0b", 3)));
  EXPECT_FALSE(isValidUtf8("caf\xe9"));
  EXPECT_EQ(makeValidUtf8("caf\xe9!"), "caf\uFFFD!");
  // A NUL byte is a character like any other, before and after a repair.
  EXPECT_EQ(makeValidUtf8(std::string("a\0\xff\0b", 5)), std::string("a\0\uFFFD\0b", 7));
  EXPECT_EQ(replaceAll("a'b'c", "'", "\\'"), "a\\'b\\'c");
  EXPECT_EQ(split("a..b", '.'), (std::vector<std::string>{"a", "", "b"}));
}

}  // namespace
}  // namespace vesk
