#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <thread>

#include "foundation/PropertyList.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

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
  // {key, type ("" for none), value, what read prints}; written by domain, read by file.
  const std::array<std::string, 4> rows[] = {
      {"plain", "", "-1", "-1"},        {"text", "-string", "  two words ", "  two words "},
      {"yes", "-bool", "TRUE", "1"},    {"no", "-boolean", "no", "0"},
      {"count", "-int", "-42", "-42"},  {"big", "-integer", "9000000000", "9000000000"},
      {"ratio", "-float", "1.5", "1.5"}};
  for (const auto& [key, type, value, printed] : rows) {
    std::vector<std::string> write{"write", domain_, key, type, value};
    if (type.empty()) write.erase(write.begin() + 3);
    ASSERT_EQ(defaults(write).status, 0) << key;
    EXPECT_EQ(defaults({"read", file_, key}).output, printed + "\n");
  }

  // The file is an XML property list with typed values, and so is a whole-file read.
  const Dictionary typed = {{"plain", "-1"}, {"text", "  two words "}, {"yes", true}, {"no", false},
                            {"count", -42},  {"big", 9000000000},      {"ratio", 1.5}};
  const std::string bytes = test::readFile(file_);
  EXPECT_EQ(bytes.rfind("<?xml", 0), 0u);
  EXPECT_EQ(propertyListFromBytes(bytes), Value(typed));
  EXPECT_EQ(propertyListFromBytes(defaults({"read", domain_}).output), Value(typed));
}

TEST_F(DefaultsTool, SaysWhenTheFileOrKeyIsMissingOrAValueIsBad) {
  for (const char* when : {"without a file", "without the key"}) {
    const auto missing = defaults({"read", domain_, "key"});
    EXPECT_EQ(missing.status, 1) << when;
    EXPECT_EQ(missing.output, "The domain/default pair of (" + domain_ + ", key) does not exist\n");
    EXPECT_EQ(defaults({"delete", domain_, "key"}).status, 1) << when;
    ASSERT_EQ(defaults({"write", domain_, "other", "x"}).status, 0);
  }
  EXPECT_EQ(defaults({"write", domain_, "n", "-int", "12abc"}).status, 1);
  EXPECT_EQ(defaults({"write", domain_, "b", "-bool", "maybe"}).status, 1);
  EXPECT_EQ(defaults({"write", domain_, "n", "-int"}).status, 1);
  EXPECT_EQ(defaults({"frobnicate", domain_}).status, 1);
  EXPECT_EQ(defaults({"read", domain_, "n"}).status, 1);  // nothing bad was written
  ASSERT_EQ(defaults({"delete", domain_, "other"}).status, 0);
  EXPECT_EQ(defaults({"read", domain_, "other"}).status, 1);
}

TEST_F(DefaultsTool, RewritesABinaryFileAsXmlButNeverAFileThatIsNoDictionary) {
  folder_.write("com.example.prefs.plist",
                binaryPropertyList(Value(Dictionary{{"kept", 7}, {"name", "old"}})));
  EXPECT_EQ(defaults({"read", domain_, "kept"}).output, "7\n");
  ASSERT_EQ(defaults({"write", file_, "name", "new"}).status, 0);
  const std::string bytes = test::readFile(file_);
  EXPECT_FALSE(isBinaryPropertyList(bytes));
  EXPECT_EQ(propertyListFromBytes(bytes), Value(Dictionary{{"kept", 7}, {"name", "new"}}));

  for (const std::string content : {"this is not a plist <", "(\n a,\n b\n)"}) {
    folder_.write("com.example.prefs.plist", content);
    EXPECT_EQ(defaults({"write", domain_, "key", "value"}).status, 1);
    EXPECT_EQ(test::readFile(file_), content);
  }
}

TEST_F(DefaultsTool, ReplacesTheFileWholeAndLosesNoKeyToAConcurrentWriter) {
  ASSERT_EQ(defaults({"write", domain_, "first", "1"}).status, 0);
  ::chmod(file_.c_str(), 0600);
  struct stat before = {}, after = {};
  ::stat(file_.c_str(), &before);
  std::ifstream oldReader(file_);  // still sees the whole old file after the replacement

  auto writer = [&](const std::string& prefix) {
    for (int i = 0; i < 15; ++i) defaults({"write", domain_, prefix + std::to_string(i), "v"});
  };
  std::thread a(writer, "a"), b(writer, "b");
  a.join();
  b.join();

  ::stat(file_.c_str(), &after);
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ(after.st_mode & 07777, 0600u);
  const std::string old((std::istreambuf_iterator<char>(oldReader)), {});
  EXPECT_EQ(propertyListFromBytes(old), Value(Dictionary{{"first", "1"}}));

  const Value now = readPropertyListFile(file_);
  EXPECT_EQ(now.dictionary() ? now.dictionary()->size() : 0, 31u);  // no key lost
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
    EXPECT_EQ(entry.path().filename(), "com.example.prefs.plist");  // no temporary left
}

}  // namespace
}  // namespace vesk
