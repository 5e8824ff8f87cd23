#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "foundation/PropertyList.h"
#include "foundation/PropertyListLimits.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

Value sample() {
  return Value(Dictionary{
      {"name", "Office Mac \u00e9"},
      {"negative", -5},
      {"big", static_cast<std::int64_t>(1) << 40},
      {"ratio", 0.25},
      {"enabled", true},
      {"blob", Value(Data{0, 1, 2, 255})},
      {"list", Value(Array{Value("x"), Value(Dictionary{{"deep", false}})})},
  });
}

TEST(PropertyList, XmlAndBinaryFormsReadBackTheSameValue) {
  const std::string xml = xmlPropertyList(sample());
  EXPECT_NE(xml.find("<key>negative</key>"), std::string::npos);
  EXPECT_EQ(propertyListFromBytes(xml), sample());

  const std::string binary = binaryPropertyList(sample());
  ASSERT_EQ(binary.rfind("bplist00", 0), 0u);
  EXPECT_EQ(propertyListFromBytes(binary), sample());
}

TEST(PropertyList, ReadsTheTextFormThatDefaultsPrints) {
  const char* text = R"({
    ComputerName = "Office \"Mac\"\tPro";
    HostName = office-mac.local;
    Nested =     {
        Empty = "";
        List =         (
            1,
            "two words",
            <0a0b 0c>,
        );
    };
    /* a comment */ Unicode = "caf\U00e9 \UD83D\UDE00"; // trailing comment
    Octal = "\101\102";
    New = {length = 3, bytes = 0x0a0b0c};
})";
  Error error;
  const Value v = propertyListFromBytes(text, &error);
  ASSERT_TRUE(v.isDictionary()) << error.description();
  const Dictionary& d = *v.dictionary();
  EXPECT_EQ(d["ComputerName"], Value("Office \"Mac\"\tPro"));
  EXPECT_EQ(d["HostName"], Value("office-mac.local"));
  EXPECT_EQ(d.valueForKeyPath("Nested.Empty"), Value(""));
  EXPECT_EQ(d.valueForKeyPath("Nested.List"),
            Value(Array{Value("1"), Value("two words"), Value(Data{0x0a, 0x0b, 0x0c})}));
  EXPECT_EQ(d["Unicode"], Value("caf\u00e9 \U0001F600"));
  EXPECT_EQ(d["Octal"], Value("AB"));
  EXPECT_EQ(d["New"], Value(Data{0x0a, 0x0b, 0x0c}));
  EXPECT_EQ(propertyListFromBytes("word"), Value("word"));
  EXPECT_EQ(propertyListFromBytes("()"), Value(Array{}));
}

TEST(PropertyList, DescriptionsReadBackAsTheSameStrings) {
  const Value v(Dictionary{{"a key", "line\nbreak \"q\" \\ \u00e9"},
                           {"list", Value(Array{Value(""), Value("x;y"), Value("//")})},
                           {"//k", "v"},
                           {"z", "/*w*/"},
                           {"share", "//server/share"},
                           {"data", Value(Data{1, 2, 3, 4, 5})}});
  EXPECT_EQ(propertyListFromBytes(v.description()), v);
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

TEST(PropertyList, WritesAtomicallyAndKeepsAnExistingMode) {
  test::TemporaryFolder folder;
  const std::string path = (folder.path() / "prefs.plist").string();
  ASSERT_TRUE(writePropertyListAtomically(path, sample()));
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(readPropertyListFile(path), sample());

  ::chmod(path.c_str(), 0600);
  ASSERT_TRUE(writePropertyListAtomically(path, Value(Dictionary{{"k", "v"}})));
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(readPropertyListFile(path), Value(Dictionary{{"k", "v"}}));
  // Nothing but the file itself is left in the folder.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()),
                          std::filesystem::directory_iterator()),
            1);

  Error error;
  EXPECT_FALSE(writePropertyListAtomically((folder.path() / "no/such/dir.plist").string(), sample(),
                                           &error));
  EXPECT_FALSE(error.localizedDescription().empty());
  EXPECT_TRUE(readPropertyListFile((folder.path() / "missing.plist").string(), &error).isNil());
}

}  // namespace
}  // namespace vesk
