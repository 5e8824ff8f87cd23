#include <gtest/gtest.h>

#include <cstdlib>

#include "config/VKDefaultsWrapper.h"
#include "config/VKLogLevelSettings.h"
#include "foundation/Paths.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

TEST(DefaultsWrapper, PassesEachOperationsArgumentsWithThePathTrimmedAndWithoutItsExtension) {
  // A `defaults` that records each argument list, complains on its error stream as the real
  // one does about a missing key, and prints what the test asks it to.
  test::TemporaryFolder root;
  root.write("usr/bin/defaults",
             "#!/bin/sh\nfor a; do printf '[%s]' \"$a\"; done >> \"$VESK_ROOT/calls\"\n"
             "echo >> \"$VESK_ROOT/calls\"\necho 'no such key' >&2\n"
             "cat \"$VESK_ROOT/answer\" 2>/dev/null\n",
             0755);
  ::setenv("VESK_ROOT", root.path().c_str(), 1);

  VKDefaultsWrapper wrapper;
  wrapper.writeStringValue("v a l", "key", " /prefs/a.PLIST ");
  wrapper.writeBooleanValue(true, "on", "/prefs/a.plist");
  wrapper.writeBooleanValue(false, "off", "/prefs/a");
  wrapper.deleteDefaultForKey("gone", "\t/prefs/b.plist");
  wrapper.writeStringValues(Dictionary{{"one", Value("1")}, {"two", Value("2")}}, "/prefs/c.plist");
  wrapper.writeDefault({fsPath("/usr/bin/defaults"), "write", "/as/given.plist", "k", "-int", "3"});
  EXPECT_EQ(wrapper.readStringDefault("key", "/prefs/a.plist"), "");  // the complaint is not it
  EXPECT_EQ(test::readFile(root.path() / "calls"),
            "[write][/prefs/a][key][v a l]\n"
            "[write][/prefs/a][on][-bool][true]\n"
            "[write][/prefs/a][off][-bool][false]\n"
            "[delete][/prefs/b][gone]\n"
            "[write][/prefs/c][one][1]\n"
            "[write][/prefs/c][two][2]\n"
            "[write][/as/given.plist][k][-int][3]\n"
            "[read][/prefs/a][key]\n");
  EXPECT_EQ(VKDefaultsWrapper::stripPlistExtension("/x/plist"), "/x/plist");

  root.write("answer", "  YES\n");
  EXPECT_EQ(wrapper.readStringDefault("k", "/p"), "YES");
  EXPECT_TRUE(wrapper.readBooleanDefault("k", "/p"));
}

TEST(LogLevel, OnlyTheWordDebugSelectsTheDebugLevel) {
  for (const char* text : {"debug", "DEBUG", " Debug ", "\tdEbUg\r\n"})
    EXPECT_EQ(VKLogLevelSettings::logLevelTypeFromString(std::string_view(text)), 0) << text;
  for (const char* text : {"", "info", "extreme", "debugging", "de bug"})
    EXPECT_EQ(VKLogLevelSettings::logLevelTypeFromString(std::string_view(text)), 1) << text;
  EXPECT_EQ(VKLogLevelSettings::logLevelTypeFromString(std::nullopt), 1);
}

TEST(LogLevel, IsReadFromThePreferencesOnceSoAChangeWaitsForTheNextStart) {
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
