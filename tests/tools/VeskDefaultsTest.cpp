#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "foundation/PropertyList.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

test::ProgramResult defaults(const std::vector<std::string>& arguments) {
  return test::runProgram(VESK_DEFAULTS_TOOL, arguments, test::environmentWithout({}), true);
}

class DefaultsTool : public testing::Test {
 protected:
  test::TemporaryFolder folder_;
  const std::string domain_ = (folder_.path() / "com.example.prefs").string();
  const std::string file_ = domain_ + ".plist";
};

TEST_F(DefaultsTool, WritesEveryTypeAndReadsItBackAsText) {
  for (const auto& write :
       std::vector<std::vector<std::string>>{{"write", domain_, "plain", "-1"},
                                             {"write", domain_, "text", "-string", "  two words "},
                                             {"write", domain_, "yes", "-bool", "TRUE"},
                                             {"write", domain_, "no", "-boolean", "no"},
                                             {"write", domain_, "count", "-int", "-42"},
                                             {"write", domain_, "big", "-integer", "9000000000"},
                                             {"write", file_, "ratio", "-float", "1.5"}})
    ASSERT_EQ(defaults(write).status, 0) << write[2];

  EXPECT_EQ(defaults({"read", domain_, "plain"}).output, "-1\n");
  EXPECT_EQ(defaults({"read", domain_, "text"}).output, "  two words \n");
  EXPECT_EQ(defaults({"read", domain_, "yes"}).output, "1\n");
  EXPECT_EQ(defaults({"read", domain_, "no"}).output, "0\n");
  EXPECT_EQ(defaults({"read", file_, "count"}).output, "-42\n");
  EXPECT_EQ(defaults({"read", domain_, "big"}).output, "9000000000\n");
  EXPECT_EQ(defaults({"read", domain_, "ratio"}).output, "1.5\n");

  // The file is an XML property list with typed values, and so is a whole-file read.
  const std::string bytes = test::readFile(file_);
  EXPECT_EQ(bytes.rfind("<?xml", 0), 0u);
  const Value written = propertyListFromBytes(bytes);
  ASSERT_TRUE(written.dictionary());
  EXPECT_EQ((*written.dictionary())["yes"], Value(true));
  EXPECT_EQ((*written.dictionary())["count"], Value(-42));
  EXPECT_EQ((*written.dictionary())["plain"], Value("-1"));
  EXPECT_EQ(propertyListFromBytes(defaults({"read", domain_}).output), written);
}

TEST_F(DefaultsTool, SaysWhenTheFileOrKeyIsMissingOrAValueIsBad) {
  const auto noFile = defaults({"read", domain_, "key"});
  EXPECT_EQ(noFile.status, 1);
  EXPECT_EQ(noFile.output, "The domain/default pair of (" + domain_ + ", key) does not exist\n");

  ASSERT_EQ(defaults({"write", domain_, "other", "x"}).status, 0);
  const auto noKey = defaults({"read", domain_, "key"});
  EXPECT_EQ(noKey.status, 1);
  EXPECT_EQ(noKey.output, "The domain/default pair of (" + domain_ + ", key) does not exist\n");
  EXPECT_EQ(defaults({"delete", domain_, "key"}).status, 1);

  EXPECT_EQ(defaults({"write", domain_, "n", "-int", "12abc"}).status, 1);
  EXPECT_EQ(defaults({"write", domain_, "b", "-bool", "maybe"}).status, 1);
  EXPECT_EQ(defaults({"write", domain_, "n", "-int"}).status, 1);
  EXPECT_EQ(defaults({"frobnicate", domain_}).status, 1);
  EXPECT_EQ(defaults({"read", domain_, "n"}).status, 1);  // nothing bad was written

  ASSERT_EQ(defaults({"delete", domain_, "other"}).status, 0);
  EXPECT_EQ(defaults({"read", domain_, "other"}).status, 1);
}

TEST_F(DefaultsTool, ReadsABinaryFileAndRewritesItAsXmlKeepingItsKeys) {
  Dictionary original{{"kept", Value(7)}, {"name", Value("old")}};
  std::ofstream(file_, std::ios::binary) << binaryPropertyList(Value(original));
  EXPECT_EQ(defaults({"read", domain_, "kept"}).output, "7\n");

  ASSERT_EQ(defaults({"write", domain_, "name", "new"}).status, 0);
  const std::string bytes = test::readFile(file_);
  EXPECT_FALSE(isBinaryPropertyList(bytes));
  original.set("name", Value("new"));
  EXPECT_EQ(propertyListFromBytes(bytes), Value(original));
}

TEST_F(DefaultsTool, LeavesAFileThatIsNoDictionaryAlone) {
  for (const std::string content : {"this is not a plist <", "(\n a,\n b\n)"}) {
    folder_.write("com.example.prefs.plist", content);
    EXPECT_EQ(defaults({"write", domain_, "key", "value"}).status, 1);
    EXPECT_EQ(test::readFile(file_), content);
  }
}

TEST_F(DefaultsTool, ReplacesTheFileWholeAndLosesNoKeyToAConcurrentWriter) {
  ASSERT_EQ(defaults({"write", domain_, "first", "1"}).status, 0);
  ::chmod(file_.c_str(), 0600);
  struct stat before {};
  ::stat(file_.c_str(), &before);
  std::ifstream oldReader(file_);  // still sees the whole old file after the replacement

  auto writer = [&](const std::string& prefix) {
    for (int i = 0; i < 15; ++i) defaults({"write", domain_, prefix + std::to_string(i), "v"});
  };
  std::thread a(writer, "a"), b(writer, "b");
  a.join();
  b.join();

  struct stat after {};
  ::stat(file_.c_str(), &after);
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ(after.st_mode & 07777, 0600u);
  const std::string old((std::istreambuf_iterator<char>(oldReader)), {});
  EXPECT_NE(old.find("<key>first</key>"), std::string::npos);
  EXPECT_NE(old.find("</plist>"), std::string::npos);

  const Value now = readPropertyListFile(file_);
  ASSERT_TRUE(now.dictionary());
  EXPECT_EQ(now.dictionary()->size(), 31u);
  for (const auto& entry : fs::directory_iterator(folder_.path()))
    EXPECT_EQ(entry.path().filename(), "com.example.prefs.plist");  // no temporary left
}

}  // namespace
}  // namespace vesk
