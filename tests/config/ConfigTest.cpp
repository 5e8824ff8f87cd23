#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "config/ClientFolders.h"
#include "config/ExpectScriptWrapper.h"
#include "config/VESKPrefsFile.h"
#include "config/VKDefaultsWrapper.h"
#include "config/VKLogLevelSettings.h"
#include "foundation/Exception.h"
#include "foundation/Paths.h"
#include "foundation/PropertyList.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

// ---- The management preferences, from their bytes

std::string plist(const Dictionary& dictionary) { return xmlPropertyList(Value(dictionary)); }

VESKPrefsFile loadedFrom(const std::string& bytes) {
  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.loadPlistData(bytes);
  return prefs;
}

TEST(PrefsFile, ReadsEveryPropertyAndBothSpellingsOfTheAppendKeyTheCorrectOneLast) {
  VESKPrefsFile prefs = loadedFrom(plist({{"ksv_url", Value(" https://ksv.example:8443//  ")},
                                          {"allowInvalidCertificate", Value(true)},
                                          {"last_management_framework_change_id", Value("42")},
                                          {"do_not_upgrade_vesk", Value("YES")},
                                          {"do_not_upgrade_dexlo", Value(1)},
                                          {"check_ksv_connection_timeout", Value(1)},
                                          {"default_connection_timeout", Value("90")},
                                          {"dexlo_app_path", Value("/Applications/D")},
                                          {"package_validation_level", Value("1")},
                                          {"do_not_migrate_vesk", Value(true)},
                                          {"max_clock_skew", Value(300)},
                                          {"disable_vnc", Value(true)},
                                          {"append_users_not_in_dcsl", Value(true)}}));
  EXPECT_EQ(prefs.ksvUrl(), "https://ksv.example:8443/");
  EXPECT_EQ(prefs.lastManagementFrameworkChangeID(), "42");
  EXPECT_TRUE(prefs.allowInvalidCertificate());
  EXPECT_TRUE(prefs.doNotUpgradeVesk());
  EXPECT_TRUE(prefs.doNotUpgradeDexlo());
  EXPECT_EQ(prefs.checkKsvConnectionTimeout(), 1);
  EXPECT_EQ(prefs.defaultConnectionTimeout(), 90);
  EXPECT_EQ(prefs.dexloAppPath(), "/Applications/D");
  EXPECT_EQ(prefs.packageValidationLevel(), "1");
  EXPECT_TRUE(prefs.doNotMigrateVesk());
  EXPECT_EQ(prefs.maxClockSkew(), 300);
  EXPECT_TRUE(prefs.disableScreenShare());
  EXPECT_TRUE(prefs.appendUsersNotInDscl());  // the transposed spelling older releases wrote

  prefs.loadPlistData(plist({}));  // neither spelling: the property keeps what it had
  EXPECT_TRUE(prefs.appendUsersNotInDscl());
  prefs.loadPlistData(plist(
      {{"append_users_not_in_dcsl", Value(true)}, {"append_users_not_in_dscl", Value(false)}}));
  EXPECT_FALSE(prefs.appendUsersNotInDscl());
}

TEST(PrefsFile, GivesBadInputAndTimeOutsBelowOneTheAbsentKeyValues) {
  const Dictionary dict{{"a", "b"}};  // of the wrong type for every key
  for (const std::string& bytes :
       {std::string("not a property list {"), xmlPropertyList(Value(Array{Value("x")})),
        plist({{"ksv_url", 5}, {"dexlo_app_path", dict}, {"check_ksv_connection_timeout", 0}}),
        plist({{"ksv_url", dict}, {"max_clock_skew", dict}, {"default_connection_timeout", -5}})}) {
    const VESKPrefsFile prefs = loadedFrom(bytes);
    EXPECT_EQ(prefs.ksvUrl(), std::nullopt);
    EXPECT_EQ(prefs.dexloAppPath(), std::nullopt);
    EXPECT_FALSE(prefs.allowInvalidCertificate());
    EXPECT_EQ(prefs.checkKsvConnectionTimeout(), 10);
    EXPECT_EQ(prefs.defaultConnectionTimeout(), 60);
  }
  EXPECT_EQ(loadedFrom("not a property list").maxClockSkew(), -1);
}

TEST(LegacyConfiguration, BuildsTheServerAddressFromItsLines) {
  const std::pair<std::string, std::string> cases[] = {
      {"serverAddress = h\nserverPort =   \nssl = false\nserverPath = /app//\n",
       "http://h:9006/app/"},
      // The secure default applies only to a securePort line whose value is empty.
      {"serverAddress=10.0.0.5\nssl=true\nserverPath=/app//\n", "https://10.0.0.5:/app/"},
      {"securePort=\nssl=true\nserverAddress=h\n", "https://h:8443/"},
      // Only the exact word "true" turns ssl on.
      {"serverAddress=h\nserverPort=1\nsecurePort=2\nssl = YES\n", "http://h:1/"},
      {"serverAddress=h\nserverPort=1\nsecurePort=2\nssl = 1\n", "http://h:1/"},
      // First matching prefix wins; a further "=" cuts the value.
      {"  serverAddressX = a=b \r\nsslOn = true\nunknown = 1\n", "https://a:/"},
      {"", "http://:/"},
      {"serverAddress 10.0.0.5\nno equals anywhere\n", "http://:/"},
      {"serverAddress=h\xff\xfe\nserverPort=1\n", "http://h\xEF\xBF\xBD\xEF\xBF\xBD:1/"},
  };
  for (const auto& [file, url] : cases)
    EXPECT_EQ(readLegacyConfiguration(file).ksvUrl, url) << file;
  EXPECT_FALSE(readLegacyConfiguration("signedCert = TRUE").signedCertificate);
  EXPECT_TRUE(readLegacyConfiguration("signedCert=true").signedCertificate);

  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.setDexloAppPath("/kept");
  prefs.loadLegacyData("serverAddress=h\n");
  EXPECT_EQ(prefs.ksvUrl(), "http://h:/");
  EXPECT_TRUE(prefs.allowInvalidCertificate());  // no signedCert line: not trusted
  EXPECT_EQ(prefs.maxClockSkew(), -1);
  EXPECT_EQ(prefs.dexloAppPath(), "/kept");  // nothing else is touched
}

// ---- The management preferences on disk, written through the defaults tool

class PrefsFileOnDisk : public testing::Test {
 protected:
  void SetUp() override { test::useSandbox(root_.path()); }
  Dictionary written(const std::string& path = kPath) const {
    const Value value = readPropertyListFile(fsPath(path));
    return value.dictionary() ? *value.dictionary() : Dictionary();
  }

  static constexpr const char* kPath = "/Library/Preferences/com.vesksoftware.vesk.plist";
  test::TemporaryFolder root_;
};

TEST_F(PrefsFileOnDisk, LoadsThePropertyListElseTheLegacyFileElseRaises) {
  try {
    VESKPrefsFile prefs;
    FAIL() << "loaded without any file";
  } catch (const Exception& e) {
    EXPECT_EQ(
        e.name() + ": " + e.reason(),
        "KSV URL Required: The file /Library/Preferences/com.vesksoftware.vesk.plist does not exist. Use the createConf verb to create it.");
  }
  root_.write("private/etc/vesk.conf", "serverAddress=legacy\nserverPort=1\n");
  EXPECT_EQ(VESKPrefsFile().ksvUrl(), "http://legacy:1/");
  root_.write(std::string(kPath).substr(1), plist({{"ksv_url", Value("https://new")}}));
  EXPECT_EQ(VESKPrefsFile().ksvUrl(), "https://new/");
  EXPECT_EQ(VESKPrefsFile(false).ksvUrl(), std::nullopt);
}

TEST_F(PrefsFileOnDisk, SavesTheKeysThatAreSetAndKeepsTheOthers) {
  Dictionary expected{{"do_not_upgrade_vesk", true}, {"global_log_level", "debug"}};
  root_.write(std::string(kPath).substr(1), plist(expected), 0600);
  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.setKsvUrl(std::string(" // "));  // no address: neither it nor a certificate policy
  prefs.setAllowInvalidCertificate(true);
  prefs.setLastManagementFrameworkChangeID("7");
  prefs.setMaxClockSkew(0);
  prefs.setDexloAppPath(" ");
  prefs.setPackageValidationLevel("2");
  prefs.setDisableScreenShare(true);  // never saved
  prefs.savePrefs();
  expected.set("last_management_framework_change_id", "7");
  expected.set("package_validation_level", "2");
  EXPECT_EQ(written(), expected);

  prefs.setKsvUrl("https://ksv.example/");
  prefs.setMaxClockSkew(-1);
  prefs.savePrefs();
  expected.set("ksv_url", "https://ksv.example/");
  expected.set("allowInvalidCertificate", true);
  expected.set("max_clock_skew", "-1");
  EXPECT_EQ(written(), expected);
  EXPECT_EQ(fs::status(fsPath(kPath)).permissions(), fs::perms(0644));
  prefs.writeDoNotUpgradeVESK(false);
  EXPECT_EQ(written()["do_not_upgrade_vesk"], Value(false));

  // An http address gets no certificate policy either; a target redirects the writes.
  VESKPrefsFile other = VESKPrefsFile::withoutLoadingData();
  other.setTarget("/Volumes/Other");
  EXPECT_EQ(other.configFilePath(), "/Volumes/Other" + std::string(kPath));
  fs::create_directories(fsPath("/Volumes/Other/Library/Preferences"));
  other.setKsvUrl("http://plain");
  other.savePrefs();
  EXPECT_EQ(written(other.configFilePath()), (Dictionary{{"ksv_url", Value("http://plain/")}}));
}

TEST_F(PrefsFileOnDisk, SelectsTheDebugLevelOnlyByTheWordDebugAndOnlyAtStart) {
  for (const char* text : {"debug", "DEBUG", " Debug ", "\tdEbUg\r\n"})
    EXPECT_EQ(VKLogLevelSettings::logLevelTypeFromString(std::string_view(text)), 0) << text;
  for (const char* text : {"", "info", "extreme", "debugging", "de bug"})
    EXPECT_EQ(VKLogLevelSettings::logLevelTypeFromString(std::string_view(text)), 1) << text;
  EXPECT_EQ(VKLogLevelSettings::logLevelTypeFromString(std::nullopt), 1);

  // The probe logs two extreme lines, setting the level to "info" between them.
  const std::string log = fsPath("/private/var/log/vesk.log");
  const std::string probe = std::string(VESK_HELPERS_DIR) + "/probe";
  ASSERT_EQ(test::runProgram(probe, {"log-level"}, test::environmentWithout({})).status, 0);
  EXPECT_FALSE(fs::exists(log));  // no preferences: normal level
  VKDefaultsWrapper().writeStringValue("debug", "global_log_level", fsPath(kPath));
  ASSERT_EQ(test::runProgram(probe, {"log-level"}, test::environmentWithout({})).status, 0);
  const std::string lines = test::readFile(log);
  EXPECT_NE(lines.find("]: [DEBUG] first extreme line\n"), std::string::npos) << lines;
  EXPECT_NE(lines.find("]: [DEBUG] second extreme line\n"), std::string::npos) << lines;
}

TEST(DefaultsWrapper, PassesEachOperationsArgumentsWithThePathTrimmedAndWithoutItsExtension) {
  // A `defaults` that records each argument list, complains on its error stream as the real
  // one does about a missing key, and prints what the test asks it to.
  test::TemporaryFolder root;
  root.write("usr/local/vesk/bin/vesk-defaults",
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
  wrapper.writeDefault(
      {toolPath("/usr/bin/defaults"), "write", "/as/given.plist", "k", "-int", "3"});
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

// ---- The client's run and temporary folders

// "owner:group mode", and " folder" for a folder; the item itself, never what a link names.
std::string attributesOf(const fs::path& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return "missing";
  return fmt::format("{}:{} {:o}{}", info.st_uid, info.st_gid, info.st_mode & 07777,
                     S_ISDIR(info.st_mode) ? " folder" : "");
}

class ClientFolders : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "owners and other users need root";
    ::setenv("VESK_ROOT", root_.path().c_str(), 1);
  }
  std::string under(const std::string& path) const { return root_.path().string() + path; }

  test::TemporaryFolder root_;
};

TEST_F(ClientFolders, RepairARunFolderThatIsWrongInAnyWayByStartingAfresh) {
  const std::string relative = "Library/Application Support/VESK/run";
  const std::string run = under("/" + relative);
  // Other programs of the client look for the markers in these two folders.
  EXPECT_EQ(checkForTasksFile(), under("/private/var/run/vesk/checkForTasks"));
  EXPECT_EQ(reEnrollLockFile(), run + "/veskReEnroll");
  EXPECT_EQ(attributesOf(run), "0:80 700 folder");
  EXPECT_EQ(attributesOf(under("/private/var/run/vesk")), "0:80 700 folder");
  root_.write(relative + "/keep", "x");
  EXPECT_EQ(veskRunDir(), run);
  EXPECT_TRUE(fs::exists(run + "/keep"));  // a proper folder keeps its contents

  // A link to a folder that looks proper is still removed, never followed.
  const fs::path elsewhere = root_.write("elsewhere/precious", "x").parent_path();
  ::chmod(elsewhere.c_str(), 0700);
  ::chown(elsewhere.c_str(), 0, 80);
  const std::pair<const char*, std::function<void()>> damages[] = {
      {"mode 0755", [&] { ::chmod(run.c_str(), 0755); }},
      {"group 0", [&] { ::chown(run.c_str(), 0, 0); }},
      {"a file in its place", [&] { fs::remove_all(run), root_.write(relative, "a file"); }},
      {"a link in its place",
       [&] { fs::remove_all(run), fs::create_directory_symlink(elsewhere, run); }},
  };
  for (const auto& [what, damage] : damages) {
    root_.write(relative + "/old", "x");
    damage();
    EXPECT_EQ(veskRunDir(), run);
    EXPECT_EQ(attributesOf(run), "0:80 700 folder") << what;
    EXPECT_TRUE(fs::is_empty(run)) << what;
  }
  EXPECT_EQ(attributesOf(elsewhere), "0:80 700 folder");
  EXPECT_TRUE(fs::exists(elsewhere / "precious"));
}

TEST_F(ClientFolders, GiveRootItsOwnTemporaryFolderAndResetTheSupportFolderButNoLinksTarget) {
  const std::string support = under("/Library/Application Support/VESK");
  const auto both = [&] { return attributesOf(support) + ", " + attributesOf(support + "/tmp"); };
  EXPECT_EQ(veskTmpFile("/name"), support + "/tmp//name");
  EXPECT_EQ(both(), "0:0 755 folder, 0:80 700 folder");
  ::chmod((support + "/tmp").c_str(), 0777);
  ::chmod(support.c_str(), 0700);
  EXPECT_EQ(rootTempDir(), support + "/tmp");
  EXPECT_EQ(both(), "0:0 755 folder, 0:80 700 folder");

  // A link where either folder should be: what it points to keeps its owner and mode.
  for (const std::string& link : {support + "/tmp", support}) {
    const fs::path target = root_.path() / ("linked-" + fs::path(link).filename().string());
    fs::create_directory(target);
    ::chmod(target.c_str(), 0751);
    ::chown(target.c_str(), 65534, 65534);
    fs::remove_all(link);
    fs::create_directory_symlink(target, link);
    EXPECT_EQ(veskTmpDir(), support + "/tmp");
    EXPECT_EQ(attributesOf(target), "65534:65534 751 folder") << link;
  }
}

TEST_F(ClientFolders, GiveAnotherUserVESKInTheirOwnTemporaryFolder) {
  test::TemporaryFolder tmp;
  ::chmod(tmp.path().c_str(), 0777);
  // A plain file named VESK is replaced by a folder; the client's own folders are untouched.
  const fs::path file = tmp.write("VESK", "not a folder", 0666);
  ::chown(file.c_str(), 65534, 65534);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv("TMPDIR", tmp.path().c_str(), 1);
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
    ::_exit(veskTmpDir() == file.string() ? 0 : 1);
  }
  int status = -1;
  ::waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0) << "as nobody, veskTmpDir answered another folder";
  EXPECT_EQ(attributesOf(file), "65534:65534 700 folder");
  EXPECT_FALSE(fs::exists(under("/Library/Application Support")));
}

// ---- Scripts for expect, and real runs of them against programs that ask on their terminal

// Every character the script language treats specially inside double quotes, and a blank.
const std::string kAwkward = "a$b \"c\" \\d [e] {f} g!h%i^j";

// bash's `read` shows its prompt only when its input is a terminal, and `-s` turns the
// terminal's echo off while the answer is typed.
Command asking(const std::string& script) { return {"/bin/bash", "-c", script}; }
const Command kAsksForAPassword = asking("IFS= read -rsp 'Password: ' a; echo; echo \"got [$a]\"");
const Command kAsksForANameAndAPassword = asking(
    "IFS= read -rp 'Name? ' n; IFS= read -rsp 'Password: ' p; echo; "
    "echo \"name [$n] password [$p]\"");

class ExpectScript : public ::testing::Test {
 protected:
  void SetUp() override { test::useSandbox(root.path()); }
  // Nothing of any run may stay behind: the scripts hold passwords.
  void TearDown() override {
    EXPECT_TRUE(fs::is_empty(veskTmpDir())) << "a script was left behind";
  }

  test::TemporaryFolder root;  // a root whose temporary folder only this test writes to
  ExpectScriptWrapper wrapper;
};

TEST_F(ExpectScript, IsBuiltFromTheTemplateAndItsPieces) {
  const std::string head = "#!" + (root.path() / "usr/bin/expect").string() + "\nset timeout 60\n";
  const std::string tail =
      "expect {\n  timeout { exit 99 }\n  eof\n}\ncatch wait result\nexit [lindex $result 3]";
  // One answer and no prompt: the answer waits for "password", in any case.
  EXPECT_EQ(wrapper.createScriptFromArguments({"/bin/echo $X", "a b", "$y"}, {}, {"s3cret"}),
            head + "spawn -noecho /bin/echo $X \"a b\" \"\\$y\"\n" +
                "expect {\n  -nocase\n  \"password\"\n}\nsend -- \"s3cret\"\nsend -- \\r\n\n" +
                tail);
  // No answer sends a bare return; extra answers follow without a wait; a prompt is
  // lower-cased and trimmed, never escaped.
  EXPECT_EQ(
      wrapper.createScriptFromArguments({"/bin/cmd"}, {" \tNew $Password* "}, {std::nullopt, "y"}),
      head + "spawn -noecho /bin/cmd\nexpect {\n  -nocase\n  \"new $password*\"\n}\n" +
          "send -- \\r\nsend -- \"y\"\nsend -- \\r\n\n" + tail);

  EXPECT_EQ(ExpectScriptWrapper::escapeCommonCharacters(kAwkward),
            "a\\$b \\\"c\\\" \\\\d \\[e\\] \\{f\\} g\\!h\\%i\\^j");
}

TEST_F(ExpectScript, PassesAnswersAndArgumentsToTheProgramUnchanged) {
  // The prompt matched "password" in another case; the answer was not echoed.
  EXPECT_EQ(wrapper.executeAndAnswerPromptWith(kAsksForAPassword, kAwkward),
            "Password: \r\ngot [" + kAwkward + "]");
  EXPECT_EQ(wrapper.executeWithPrompts(kAsksForANameAndAPassword, {"NAME?", "password:"},
                                       {"Ann Lee", kAwkward}),
            "Name? Ann Lee\r\nPassword: \r\nname [Ann Lee] password [" + kAwkward + "]");
  // Two prompts and one answer: both get it.
  EXPECT_EQ(wrapper.executeWithPrompts(kAsksForANameAndAPassword, {"name?", "password:"}, {"same"}),
            "Name? same\r\nPassword: \r\nname [same] password [same]");
  EXPECT_EQ(wrapper.executeWithPrompt({"/usr/bin/printf", "[%s]", kAwkward, "", "*"}, std::nullopt,
                                      std::nullopt),
            "[" + kAwkward + "][][*]");
}

TEST_F(ExpectScript, IsPrivateWhileItRunsAndEachFailureIsReported) {
  const std::string folder = veskTmpDir();
  // A shell script's output through expect, or the error reported.
  const auto run = [&](const std::string& script) {
    Error error;
    return wrapper.executeWithPrompts({"/bin/sh", "-c", script}, {}, {}, &error)
        .value_or(error.description());
  };
  // The spawned command looks at the script while it runs.
  EXPECT_EQ(run("stat -c %a '" + folder + "'/*"), "700");
  const std::string error = "Error Domain=com.vesksoftware.expect.script.errors Code=";
  EXPECT_EQ(
      run("exit 3"),
      error +
          "-1000 \"The operation couldn\u2019t be completed. (com.vesksoftware.task.errors error 3.)\"");
  // One that deletes it: the removal afterwards fails, and that is the error reported.
  EXPECT_EQ(run("rm '" + folder + "'/*; exit 4"), error + "-2000 \"No such file or directory\"");
}

}  // namespace
}  // namespace vesk
