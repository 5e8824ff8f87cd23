#include <gtest/gtest.h>

#include <cstdlib>

#include "config/VKDefaultsWrapper.h"
#include "config/VKLogLevelSettings.h"
#include "foundation/Paths.h"
#include "foundation/PropertyList.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

// A root whose `defaults` only records each argument list it is given, one line per run,
// and prints what the test asks it to.
class RecordingTool : public testing::Test {
 protected:
  void SetUp() override {
    root_.write("usr/bin/defaults",
                "#!/bin/sh\nfor a; do printf '[%s]' \"$a\"; done >> \"$VESK_ROOT/calls\"\n"
                "echo >> \"$VESK_ROOT/calls\"\ncat \"$VESK_ROOT/answer\" 2>/dev/null\n",
                0755);
    ::setenv("VESK_ROOT", root_.path().c_str(), 1);
  }
  std::string calls() const { return test::readFile(root_.path() / "calls"); }
  void answer(const std::string& text) const { root_.write("answer", text); }

  test::TemporaryFolder root_;
};

TEST_F(RecordingTool, PassesEachOperationsArgumentsWithThePathTrimmedAndWithoutItsExtension) {
  VKDefaultsWrapper wrapper;
  const std::string tool = fsPath("/usr/bin/defaults");
  wrapper.writeStringValue("v a l", "key", " /prefs/a.PLIST ");
  wrapper.writeBooleanValue(true, "on", "/prefs/a.plist");
  wrapper.writeBooleanValue(false, "off", "/prefs/a");
  wrapper.deleteDefaultForKey("gone", "\t/prefs/b.plist");
  wrapper.writeStringValues(Dictionary{{"one", Value("1")}, {"two", Value("2")}}, "/prefs/c.plist");
  wrapper.writeDefault({tool, "write", "/as/given.plist", "k", "-int", "3"});
  wrapper.readStringDefault("key", "/prefs/a.plist");
  EXPECT_EQ(calls(),
            "[write][/prefs/a][key][v a l]\n"
            "[write][/prefs/a][on][-bool][true]\n"
            "[write][/prefs/a][off][-bool][false]\n"
            "[delete][/prefs/b][gone]\n"
            "[write][/prefs/c][one][1]\n"
            "[write][/prefs/c][two][2]\n"
            "[write][/as/given.plist][k][-int][3]\n"
            "[read][/prefs/a][key]\n");
  EXPECT_EQ(VKDefaultsWrapper::stripPlistExtension(" /x/y.Plist"), "/x/y");
  EXPECT_EQ(VKDefaultsWrapper::stripPlistExtension("/x/plist"), "/x/plist");
}

TEST_F(RecordingTool, ReadsBooleansFromTheToolsText) {
  VKDefaultsWrapper wrapper;
  answer("  1\n");
  EXPECT_EQ(wrapper.readStringDefault("k", "/p"), "1");
  EXPECT_TRUE(wrapper.readBooleanDefault("k", "/p"));
  answer("YES");
  EXPECT_TRUE(VKDefaultsWrapper::readBooleanDefaultWithNewWrapper("k", "/p"));
  for (const char* text : {"", "0", "no", "false", "debug"}) {
    answer(text);
    EXPECT_FALSE(wrapper.readBooleanDefault("k", "/p")) << text;
  }
}

TEST(DefaultsWrapper, RoundTripsThroughTheRealTool) {
  test::TemporaryFolder folder;
  const std::string file = (folder.path() / "prefs.plist").string();
  VKDefaultsWrapper wrapper;
  wrapper.writeStringValue("https://ksv.example/", "ksv_url", file);
  wrapper.writeBooleanValue(true, "flag", file);
  EXPECT_EQ(wrapper.readStringDefault("ksv_url", file), "https://ksv.example/");
  EXPECT_TRUE(wrapper.readBooleanDefault("flag", file));
  EXPECT_EQ((*readPropertyListFile(file).dictionary())["flag"], Value(true));

  wrapper.deleteDefaultForKey("flag", file);
  // A missing key reads as nothing: the tool's complaint goes to its error stream.
  EXPECT_EQ(wrapper.readStringDefault("flag", file), "");
  EXPECT_FALSE(wrapper.readBooleanDefault("flag", file));
  EXPECT_EQ(wrapper.readStringDefault("any", (folder.path() / "missing").string()), "");
}

TEST(LogLevel, OnlyTheWordDebugSelectsTheDebugLevel) {
  for (const char* text : {"debug", "DEBUG", " Debug ", "debug\n", "\tdEbUg\r\n"})
    EXPECT_EQ(VKLogLevelSettings::logLevelTypeFromString(std::string_view(text)), 0) << text;
  for (const char* text : {"", "info", "verbose", "extreme", "0", "debugging", "de bug"})
    EXPECT_EQ(VKLogLevelSettings::logLevelTypeFromString(std::string_view(text)), 1) << text;
  EXPECT_EQ(VKLogLevelSettings::logLevelTypeFromString(std::nullopt), 1);
}

TEST(LogLevel, IsReadFromTheManagementPreferences) {
  test::TemporaryFolder root;
  test::useSandbox(root.path());

  VKLogLevelSettings settings;
  EXPECT_EQ(settings.readGlobalLogLevel(), 1);  // no preferences at all
  const std::string prefs = fsPath("/Library/Preferences/com.vesksoftware.vesk.plist");
  settings.defaultsWrapper().writeStringValue(" Debug\n", "global_log_level", prefs);
  EXPECT_EQ(settings.readGlobalLogLevel(), 0);
  settings.defaultsWrapper().writeStringValue("info", "global_log_level", prefs);
  EXPECT_EQ(settings.readGlobalLogLevel(), 1);
}

TEST(LogLevel, IsReadOnceSoAChangeWaitsForTheNextStart) {
  test::TemporaryFolder root;
  test::useSandbox(root.path());
  const std::string log = fsPath("/private/var/log/vesk.log");
  const std::string probe = std::string(VESK_HELPERS_DIR) + "/log_level_probe";

  ASSERT_EQ(test::runProgram(probe, {}, test::environmentWithout({})).status, 0);
  EXPECT_FALSE(std::filesystem::exists(log));  // no preferences: normal level

  VKDefaultsWrapper().writeStringValue("debug", "global_log_level",
                                       fsPath("/Library/Preferences/com.vesksoftware.vesk.plist"));
  ASSERT_EQ(test::runProgram(probe, {}, test::environmentWithout({})).status, 0);
  const std::string lines = test::readFile(log);
  EXPECT_NE(lines.find("]: [DEBUG] first extreme line\n"), std::string::npos) << lines;
  EXPECT_NE(lines.find("]: [DEBUG] second extreme line\n"), std::string::npos) << lines;
}

}  // namespace
}  // namespace vesk
