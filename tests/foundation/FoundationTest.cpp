#include <gtest/gtest.h>

#include <filesystem>

#include "foundation/Error.h"
#include "foundation/PropertyList.h"
#include "foundation/PropertyListLimits.h"
#include "foundation/RunLoop.h"
#include "foundation/StringHelpers.h"
#include "foundation/VESKOperatingSystem.h"
#include "foundation/Value.h"
#include "helpers/TestSupport.h"

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
  using Rows = std::vector<std::tuple<std::string, std::int32_t, std::int64_t>>;
  const Rows plain = {{"  42abc", 42, 42}, {"-17", -17, -17}, {"+8", 8, 8}, {"abc", 0, 0},
                      {"", 0, 0},          {"3.9", 3, 3},     {"- 5", 0, 0}};
  const std::int64_t big = 99999999999, max = INT64_MAX, min = INT64_MIN;
  const Rows saturated = {
      {"99999999999", INT32_MAX, big},          {"-99999999999", INT32_MIN, -big},
      {"-2147483648", INT32_MIN, INT32_MIN},    {"9223372036854775807", INT32_MAX, max},
      {"-9223372036854775808", INT32_MIN, min}, {std::string(100000, '9'), INT32_MAX, max}};
  for (const Rows& rows : {plain, saturated})
    for (const auto& [text, asInt, asInteger] : rows) {
      EXPECT_EQ(intValue(text), asInt) << text.substr(0, 20);
      EXPECT_EQ(integerValue(text), asInteger) << text.substr(0, 20);
    }
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

TEST(OperatingSystemVersion, ComparesPartByPartAsNumbers) {
  // {a, b, sign of a compared with b}; nonsense reads as zeros rather than failing.
  const std::tuple<const char*, const char*, int> rows[] = {
      {"10.10", "10.9", 1},     {"10.10", "10.9.5", 1}, {"10.7", "10.7.0", 0},
      {"10.6.8", "10.7.0", -1}, {"11", "10.99.99", 1},  {"14.0", "10.8.0", 1},
      {"x.y", "0", 0},          {"", "0.0", 0}};
  for (const auto& [a, b, sign] : rows) {
    const VESKOperatingSystem older(a), newer(b);
    EXPECT_EQ((older.compare(newer) > 0) - (older.compare(newer) < 0), sign) << a << " " << b;
    EXPECT_EQ((newer.compare(older) > 0) - (newer.compare(older) < 0), -sign) << a << " " << b;
    EXPECT_EQ(older.isGreaterThanOrEqualToVersionString(b), sign >= 0) << a << " " << b;
    EXPECT_EQ(newer.isGreaterThanOrEqualToVersionString(a), sign <= 0) << a << " " << b;
  }
  EXPECT_EQ(VESKOperatingSystem("10.9.5 (13F34)").parts(), (std::vector<std::int64_t>{10, 9, 5}));
  EXPECT_EQ(VESKOperatingSystem(" 10.8\n").parts(), (std::vector<std::int64_t>{10, 8}));
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
  EXPECT_EQ(
      Value(outer).description(),
      "{\n    System = {\n        ComputerName = \"Office Mac\";\n        Count = 3;\n    };\n"
      "    bytes = <0a0b0c0d ff>;\n    list = (\n        \"a b\",\n        \"\",\n        1\n    );\n"
      "    say = \"\\\"hi\\\"\\n\";\n}");
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

Value sample() {
  return Value(Dictionary{{"name", "Office Mac \u00e9"},
                          {"negative", -5},
                          {"big", static_cast<std::int64_t>(1) << 40},
                          {"ratio", 0.25},
                          {"enabled", true},
                          {"blob", Value(Data{0, 1, 2, 255})},
                          {"list", Value(Array{Value("x"), Value(Dictionary{{"deep", false}})})}});
}

TEST(PropertyList, EveryFormReadsBackTheSameValue) {
  const std::string xml = xmlPropertyList(sample()), binary = binaryPropertyList(sample());
  EXPECT_NE(xml.find("<key>negative</key>"), std::string::npos);
  ASSERT_EQ(binary.rfind("bplist00", 0), 0u);
  for (const std::string& form : {xml, binary}) EXPECT_EQ(propertyListFromBytes(form), sample());

  // Each awkward string as a key and as a value: quoted, escaped and never read as a comment.
  Dictionary text{{"data", Value(Data{1, 2, 3, 4, 5})},
                  {"list", Value(Array{Value(""), Value("x;y"), Value("//")})}};
  for (const char* s : {"a key", "line\nbreak \"q\" \\ \u00e9", "//k", "/*w*/", "//server/share"})
    text.set(s, s);
  EXPECT_EQ(propertyListFromBytes(Value(text).description()), Value(text));
}

TEST(PropertyList, ReadsTheTextFormThatDefaultsPrints) {
  const char* text = R"({ ComputerName = "Office \"Mac\"\tPro"; HostName = office-mac.local;
    Nested = { Empty = ""; List = ( 1, "two words", <0a0b 0c>, ); };
    /* a comment */ Unicode = "caf\U00e9 \UD83D\UDE00"; // trailing comment
    Octal = "\101\102"; New = {length = 3, bytes = 0x0a0b0c};
})";
  const Value bytes(Data{0x0a, 0x0b, 0x0c});
  const Value list(Array{Value("1"), Value("two words"), bytes});
  const Value expected(Dictionary{{"ComputerName", "Office \"Mac\"\tPro"},
                                  {"HostName", "office-mac.local"},
                                  {"Nested", Value(Dictionary{{"Empty", ""}, {"List", list}})},
                                  {"Unicode", "caf\u00e9 \U0001F600"},
                                  {"Octal", "AB"},
                                  {"New", bytes}});
  Error error;
  EXPECT_EQ(propertyListFromBytes(text, &error), expected) << error.description();
  EXPECT_EQ(propertyListFromBytes("word"), Value("word"));
  EXPECT_EQ(propertyListFromBytes("()"), Value(Array{}));
}

std::string fromHex(std::string_view hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  return bytes;
}

// `count` arrays in the binary form, each holding one reference to the next (nested) or two
// (shared: standing for 2^count values); 4-byte offsets and references.
std::string binaryArrays(std::uint32_t count, bool shared) {
  std::string objects, table;
  auto be32 = [](std::string& to, std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) to.push_back(static_cast<char>(v >> shift));
  };
  for (std::uint32_t i = 0; i < count; ++i) {
    be32(table, static_cast<std::uint32_t>(8 + objects.size()));
    objects.push_back(static_cast<char>(i + 1 == count ? 0xA0 : shared ? 0xA2 : 0xA1));
    for (int ref = 0; i + 1 < count && ref < (shared ? 2 : 1); ++ref) be32(objects, i + 1);
  }
  std::string trailer(6, '\0');
  trailer += "\x04\x04";
  for (const std::uint32_t v :
       {0u, count, 0u, 0u, 0u, static_cast<std::uint32_t>(8 + objects.size())})
    be32(trailer, v);
  return "bplist00" + objects + table + trailer;
}

std::string xmlArrays(std::size_t count) {
  std::string xml = "<?xml version=\"1.0\"?><plist>";
  for (std::size_t i = 0; i < count; ++i) xml += "<array>";
  for (std::size_t i = 0; i < count; ++i) xml += "</array>";
  return xml + "</plist>";
}

TEST(PropertyList, RefusesWhatIsNotAPropertyList) {
  for (const std::string& bad : std::vector<std::string>{
           "", "   ", "{ a = b }", "{ a = b; ", "(a, b", "\"open", "<0a1>", "a b", "{ = b; }",
           "<?xml version=\"1.0\"?><plist><dict><key>a</key>", "{length = 4, bytes = 0x0a0b}",
           std::string(100000, '('), std::string(100000, '{'),
           // A zero character, in a string or a key: refused, never handed to libplist.
           std::string("<?xml?><string>\0</string>", 25),
           fromHex("62706c697374303061000008000000000000010100000000000000010000000000000000000"
                   "000000000000b"),
           fromHex("62706c6973743030d101026100005176080b0e000000000000010100000000000000030000"
                   "0000000000000000000000000010"),
           // Nesting beyond the limit in every form, and references that expand without end.
           xmlArrays(50000), binaryArrays(50000, false), binaryArrays(40, true),
           xmlArrays(kMaxPropertyListDepth + 1), binaryArrays(kMaxPropertyListDepth + 1, false),
           binaryArrays(513, false).substr(0, 100)}) {
    Error error;
    EXPECT_TRUE(propertyListFromBytes(bad, &error).isNil()) << bad.substr(0, 40);
    EXPECT_EQ(error.domain(), kPropertyListErrorDomain) << bad.substr(0, 40);
  }
}

TEST(PropertyList, ReadsNestingUpToTheLimitInEveryForm) {
  Value nested = Value(Array{});
  for (int i = 1; i < kMaxPropertyListDepth; ++i) nested = Value(Array{nested});
  for (const std::string& form : {xmlArrays(kMaxPropertyListDepth), nested.description(),
                                  binaryArrays(kMaxPropertyListDepth, false)})
    EXPECT_EQ(propertyListFromBytes(form), nested);
  const Value shared = propertyListFromBytes(binaryArrays(12, true));  // read once per place
  ASSERT_TRUE(shared.isArray());
  EXPECT_EQ(shared, Value(Array{(*shared.array())[1], (*shared.array())[0]}));
}

// Mode kept, the file replaced whole and no temporary left: see the defaults tool's tests.
TEST(PropertyList, WritesAFileOfMode0644AndSaysWhyItCouldNot) {
  test::TemporaryFolder folder;
  const std::string path = (folder.path() / "prefs.plist").string();
  ASSERT_TRUE(writePropertyListAtomically(path, sample()));
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0644));
  EXPECT_EQ(readPropertyListFile(path), sample());

  Error error;
  EXPECT_FALSE(writePropertyListAtomically(path + ".d/no.plist", sample(), &error));
  EXPECT_FALSE(error.localizedDescription().empty());
  EXPECT_TRUE(readPropertyListFile(path + ".missing", &error).isNil());
}

TEST(RunLoop, FiresTimersUntilInvalidatedEvenFromTheirOwnCallback) {
  RunLoop& loop = RunLoop::current();
  int repeats = 0, once = 0;
  bool cancelled = false, later = false;
  const auto repeating = loop.scheduledTimer(0.001, true, [&](Timer& timer) {
    if (++repeats == 3) timer.invalidate();
  });
  const auto single = loop.scheduledTimer(0.001, false, [&](Timer&) { ++once; });
  loop.scheduledTimer(0.001, false, [&](Timer&) { cancelled = true; })->invalidate();
  // Long after all three were due: none fires again, and the cancelled one never fired.
  loop.performAfterDelay(0.03, [&] { later = true; });
  ASSERT_TRUE(loop.runUntilCondition([&] { return later; }, 10));
  EXPECT_EQ(repeats, 3);
  EXPECT_EQ(once, 1);
  EXPECT_FALSE(cancelled);
  EXPECT_FALSE(repeating->isValid());
  EXPECT_FALSE(single->isValid());
}

}  // namespace
}  // namespace vesk
