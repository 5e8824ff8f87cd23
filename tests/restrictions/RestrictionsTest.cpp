#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "fakes/FakeProcessTable.h"
#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"
#include "helpers/TestSupport.h"
#include "platform/ChildProcess.h"
#include "restrictions/BSDProcessList.h"
#include "restrictions/BlacklistedSoftwareHelper.h"
#include "restrictions/EnforceRestrictionsAgentStrategy.h"

namespace vesk {
namespace {

std::string entry(const std::string& process, const std::string& extra = "") {
  return "<ns2:blacklisted><ns2:id>7</ns2:id><ns2:name>Game</ns2:name><ns2:process>" + process +
         "</ns2:process>" + extra + "</ns2:blacklisted>";
}

std::string document(const std::string& entries) {
  return "<?xml version=\"1.0\"?><ns2:list xmlns:ns2=\"urn:example\"><group>" + entries +
         "</group></ns2:list>";
}

Blacklist load(const std::string& xml) {
  return BlacklistedSoftwareHelper::loadBlacklistedSoftwareFromXMLString(xml);
}

std::vector<std::string> keys(const Blacklist& list) {
  std::vector<std::string> out;
  for (const auto& [key, item] : list) out.push_back(key);
  return out;
}

TEST(RestrictedList, KeysEntriesByTheirFinalPatternTheLaterWinning) {
  const Blacklist list = load(document(
      entry("Safari") + entry("Safari", "<ns2:requireExactMatch>true</ns2:requireExactMatch>") +
      entry("  *.game \n") + entry("Chess", "<ns2:message>first</ns2:message>") +
      entry("*Chess*", "<ns2:message>second</ns2:message>") + entry("   ") + entry("") +
      "<ns2:blacklisted><ns2:id>9</ns2:id></ns2:blacklisted>"));
  EXPECT_EQ(keys(list), (std::vector<std::string>{"*.game", "*Chess*", "*Safari*", "Safari"}));
  EXPECT_EQ(list.at("*Chess*").message(), "second");
  EXPECT_EQ(list.at("Safari").blacklistID(), "7");
}

TEST(RestrictedList, ReadsFlagsByThePlatformsBooleanRuleAndTrimsUsers) {
  const Blacklist list = load(
      document(entry("on", "<ns2:kill> +007</ns2:kill>") + entry("off", "<ns2:kill>no</ns2:kill>") +
               entry("users",
                     "<ns2:whitelistedUsers><ns2:username>  alice\n</ns2:username>"
                     "<ns2:username>bob</ns2:username></ns2:whitelistedUsers>"
                     "<ns2:notify>Y</ns2:notify><ns2:delete>T</ns2:delete>")));
  EXPECT_TRUE(list.at("*on*").killApp());
  EXPECT_FALSE(list.at("*off*").killApp());
  const BlacklistedItem& users = list.at("*users*");
  EXPECT_EQ(users.whitelistedUsers(), (Dictionary{{"alice", Value("")}, {"bob", Value("")}}));
  EXPECT_EQ(
      users.description(),
      "ID: 7\nName: Game\nProcess: *users*\nRequire Exact Match: NO\nMessage: (null)\n"
      "Notify: YES\nKill: NO\nDelete: YES\nWhitelist:{\n    alice = \"\";\n    bob = \"\";\n}");
}

TEST(RestrictedList, TakesOddTextLiterallyAndRefusesWhatIsNotItsXml) {
  const Blacklist odd = load(
      document(entry("[abc") + entry("*") + entry("Tom &amp; Jerry") + entry("<![CDATA[a<b]]>")));
  EXPECT_EQ(keys(odd), (std::vector<std::string>{"*", "*Tom & Jerry*", "*[abc*", "*a<b*"}));

  // An entry's text is its own: entries nested in a process stay entries of their own, and
  // nesting them deeply costs no more than listing them.
  EXPECT_EQ(keys(load(document(entry("Chess" + entry("Go"))))),
            (std::vector<std::string>{"*Chess*", "*Go*"}));
  const std::string open = entry("p"), close = "</ns2:process></ns2:blacklisted>";
  std::string nested;
  for (int i = 0; i < 5000; ++i) nested += open.substr(0, open.size() - close.size());
  for (int i = 0; i < 5000; ++i) nested += close;
  EXPECT_EQ(keys(load(document(nested))), std::vector<std::string>{"*p*"});

  // Entity declarations are neither expanded nor followed to a file.
  const Blacklist declared = load(
      "<?xml version=\"1.0\"?><!DOCTYPE x [<!ENTITY secret SYSTEM \"file:///etc/passwd\">"
      "<!ENTITY word \"Chess\">]><x>" +
      entry("&secret;") + entry("&word;") + "</x>");
  for (const auto& [key, item] : declared) EXPECT_EQ(key.find("root:"), std::string::npos) << key;
  EXPECT_EQ(declared.count("*Chess*"), 0u);

  EXPECT_TRUE(load("").empty());
  EXPECT_TRUE(load("not xml at all <").empty());
  EXPECT_TRUE(load(std::string("\x00\xff\xfe<ns2:blacklisted>", 20)).empty());
}

TEST(RestrictedList, LoadsTheDaemonsFileAndNothingWhenItIsMissingOrNotText) {
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  EXPECT_TRUE(BlacklistedSoftwareHelper::loadBlacklistedSoftware().empty());
  root.write("Library/Application Support/VESK/.blacklist.xml", document(entry("Ch\xffss")));
  EXPECT_TRUE(BlacklistedSoftwareHelper::loadBlacklistedSoftware().empty());
}

namespace fs = std::filesystem;
using Strategy = EnforceRestrictionsAgentStrategy;

TEST(Matching, ComparesPatternsWithTheRightPartsOfAPath) {
  const std::string bundle = "/Applications/Chess.app/Contents/MacOS/Chess";
  struct Case {
    const char* pattern;
    std::string path;
    bool exact, expected;
  };
  const Case cases[] = {
      // One component, case ignored, "*" crossing nothing but the text it is given.
      {"*chess*", "/usr/games/CHESSBOARD", false, true},
      {"*ÉCHECS*", "/x/les échecs", false, true},
      {"what?", "/x/what?", false, true},
      {"what?", "/x/whats", false, false},  // "?" is only itself
      {"[cb]hess", "/x/Bhess", false, true},
      {"*[abc*", "/x/x[ABC", false, true},  // an unclosed "[" is itself
      {"*[abc*", "/x/xa", false, false},
      {"*a\\b*", "/x/xaby", false, true},  // "\" makes the next character literal
      {"*a\\b*", "/x/xa\\by", false, false},
      {"*", bundle, false, false},  // over-broad patterns match nothing
      {"*.APP", bundle, false, false},
      {"*.app*", bundle, false, false},
      {"**.app*", bundle, false, false},
      {"**", bundle, false, false},
      // Without ".app": the executable's name, or a bundle's name without its extension.
      {"*chess*", bundle, false, true},
      {"*chess*", "/Users/u/chess/notes.txt", false, false},
      {"Chess", bundle, true, true},
      {"Chess", "/Applications/Chess.app", true, false},  // exact keeps the extension
      {"Chess", "/Applications/Chess.app/Contents/MacOS/Helper", true, false},
      {"Chess", "/x/chess", true, false},
      {"*", "/x/*x", true, false},
      // With ".app": any component whole.
      {"chess.app", bundle, false, true},
      {"Chess.app", bundle, true, true},
      // With "/": the same number of leading components.
      {"/Applications/Chess.app", bundle, true, true},
      {"/applications/*", bundle, false, true},
      {"/a/b/c/d/e/f/g", "/a/b", false, false},
  };
  for (const Case& c : cases)
    EXPECT_EQ(Strategy::blacklistProcess(c.pattern, c.path, c.exact), c.expected)
        << c.pattern << " against " << c.path << (c.exact ? " (exact)" : "");
  EXPECT_FALSE(Strategy::blacklistProcess("*chess*", std::nullopt, false));
  EXPECT_TRUE(Strategy::process("*/bin/*", "/usr/bin/x", false));  // "*" crosses "/"
  EXPECT_EQ(Strategy::deletePath(bundle), "/Applications/Chess.app");
  EXPECT_EQ(Strategy::deletePath("/usr/games/chess"), "/usr/games/chess");
}

// An agent command that writes down what it is asked to post.
class RecordingCommand : public EnforcementCommand {
 public:
  bool respondsToSelector(std::string_view selector) const override {
    return offersEverything || selector == "userName";
  }
  std::optional<std::string> userName() override { return user; }
  void postNotificationToDaemon(const std::string& name, const Dictionary& userInfo) override {
    posts.emplace_back(name, userInfo);
  }
  std::vector<std::string> names(const char* only = "") const {
    std::vector<std::string> out;
    for (const auto& [name, info] : posts)
      if (name.find(only) != std::string::npos) out.push_back(name);
    return out;
  }

  bool offersEverything = true;
  std::optional<std::string> user = "alice";
  std::vector<std::pair<std::string, Dictionary>> posts;
};

constexpr const char* kBlacklistEvent = "com.vesksoftware.vesk.blacklistEvent";
constexpr const char* kLaunchingEvent = "com.vesksoftware.vesk.appLaunchingEvent";

Blacklist listOf(const std::string& key, bool kill, bool exact = false, bool remove = false) {
  BlacklistedItem item;
  item.setBlacklistID("42");
  item.setProcess(key);
  item.setKillApp(kill);
  item.setRequireExactMatch(exact);
  item.setDeleteApp(remove);
  return Blacklist{{key, item}};
}

class Enforcement : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv("VESK_ROOT", root_.path().c_str(), 1);  // no list file: starts empty
    strategy_.setCommand(&command_);
  }
  Dictionary launch(pid_t pid, const std::string& path) {
    return {{"NSApplicationPath", Value(path)},
            {"NSApplicationProcessIdentifier", Value(static_cast<long>(pid))},
            {"NSApplicationProcessSerialNumberHigh", Value(7U)},
            {"NSApplicationProcessSerialNumberLow", Value(9U)}};
  }

  test::TemporaryFolder root_;
  test::FakeProcessTable table_;
  RecordingCommand command_;
  Strategy strategy_{table_};
};

TEST_F(Enforcement, KillsAndReportsEveryMatchingLaunchWithTypedPayloads) {
  ::setenv("VESK_OS_VERSION", "10.8.5", 1);  // where a serial number could have been asked for
  strategy_.setBlacklist(listOf("*chess*", true));
  const std::string path = "/Applications/Chess.app/Contents/MacOS/Chess";
  strategy_.launchingApplication(launch(412, path));
  strategy_.launchingApplication(launch(413, path));
  EXPECT_EQ(table_.killed, (std::vector<pid_t>{412, 413}));
  ASSERT_EQ(command_.names(), (std::vector<std::string>{kBlacklistEvent, kLaunchingEvent,
                                                        kBlacklistEvent, kLaunchingEvent}));
  EXPECT_EQ(command_.posts[0].second, (Dictionary{{"BlacklistID", Value(42)},
                                                  {"Process", Value("*chess*")},
                                                  {"Owner", Value("alice")},
                                                  {"ProcessID", Value(412)},
                                                  {"AppPath", Value(path)}}));
  // The serial number given is never trusted; the name is the path, as the daemon reads it.
  EXPECT_EQ(command_.posts[1].second,
            (Dictionary{{"NSApplicationProcessIdentifier", Value("412")},
                        {"NSApplicationProcessSerialNumberHigh", Value(0UL)},
                        {"NSApplicationProcessSerialNumberLow", Value(0UL)},
                        {"NSApplicationPath", Value(path)},
                        {"NSApplicationName", Value(path)}}));
}

TEST_F(Enforcement, HandlesEveryMatchingEntryInTheListsOrder) {
  Blacklist list = listOf("Chess", true, true);
  list.merge(listOf("*chess*", true));
  list.merge(listOf("Chess.app", false, true));
  list.merge(listOf("/Applications/*", false));
  strategy_.setBlacklist(list);
  auto reported = [&](const std::string& path) {
    command_.posts.clear();
    strategy_.launchingApplication(launch(412, path));
    std::vector<std::string> keys;
    for (const auto& [name, info] : command_.posts)
      if (name == kBlacklistEvent) keys.push_back(*info["Process"].string());
    return keys;
  };
  EXPECT_EQ(reported("/Applications/Chess.app/Contents/MacOS/Chess"),
            (std::vector<std::string>{"*chess*", "/Applications/*", "Chess", "Chess.app"}));
  EXPECT_EQ(table_.killed, (std::vector<pid_t>{412, 412}));  // asked once per killing entry
  // An exact name is the executable's or the bundle's with its extension; the entries that
  // do not kill have reported this application already.
  EXPECT_EQ(reported("/Applications/Chess.app/Contents/MacOS/Helper"),
            std::vector<std::string>{"*chess*"});
}

TEST_F(Enforcement, ReportsANonKillingMatchOnceUntilAPassFindsItGone) {
  strategy_.setBlacklist(listOf("Chess", false, true));
  table_.processes = {{500, 65534, "/usr/games/Chess"}, {501, 0, "/bin/sh"}, {502, 0, "/bin/sh"}};
  strategy_.fewSecondHandler();
  strategy_.fewSecondHandler();  // still running: no second report
  EXPECT_EQ(command_.names(),
            (std::vector<std::string>{kBlacklistEvent, kLaunchingEvent, kLaunchingEvent}));
  EXPECT_EQ(command_.posts[0].second["Owner"], Value("nobody"));  // the process's own user
  EXPECT_TRUE(table_.killed.empty());
  EXPECT_EQ(table_.ownerLookups, 2);  // only the process that matched, once a pass

  table_.processes = {{501, 0, "/bin/sh"}};
  strategy_.fewSecondHandler();
  EXPECT_FALSE(strategy_.blacklist().at("Chess").notified());
  table_.processes = {{503, 0, "/usr/games/Chess"}};
  strategy_.fewSecondHandler();
  EXPECT_EQ(command_.names(kBlacklistEvent).size(), 2u);
}

TEST_F(Enforcement, LeavesAnExemptUserAloneButCountsTheProcessAsRunning) {
  Blacklist list = listOf("*chess*", true, false, true);
  list.at("*chess*").whitelistedUsers().set("alice", Value(""));
  strategy_.setBlacklist(list);
  strategy_.launchingApplication(launch(412, root_.write("Chess.app/x", "").string()));
  EXPECT_TRUE(table_.killed.empty());
  EXPECT_TRUE(command_.posts.empty());
  EXPECT_TRUE(fs::exists(root_.path() / "Chess.app"));
  EXPECT_TRUE(strategy_.blacklist().at("*chess*").isRunning());

  // Another user's copy: killed, its bundle deleted; a command that offers no posting still
  // gets the kill done.
  command_.offersEverything = false;
  command_.user = "bob";
  strategy_.launchingApplication(launch(413, (root_.path() / "Chess.app/x").string()));
  EXPECT_EQ(table_.killed, std::vector<pid_t>{413});
  EXPECT_FALSE(fs::exists(root_.path() / "Chess.app"));
  EXPECT_TRUE(command_.posts.empty());
}

TEST_F(Enforcement, PassesOverProcessesWithoutAPathOrThatChangedSinceTheyWereListed) {
  table_.processes = {{600, 0, "/bad/chess\xff\xfe"}, {601, 0, ""}};
  EXPECT_EQ(BSDProcessList::getProcessList(table_)[0], Value(Dictionary()));
  EXPECT_FALSE(BSDProcessList::processList(BSDProcessList::getProcessList(table_), 600));
  EXPECT_TRUE(BSDProcessList::processList(BSDProcessList::getProcessList(table_), 601));
  strategy_.fewSecondHandler();  // empty list: nothing at all
  strategy_.setBlacklist(listOf("*chess*", true));
  strategy_.fewSecondHandler();
  EXPECT_TRUE(table_.killed.empty());

  // Listed running a restricted program, running something else when its owner is asked.
  class ChangingTable : public test::FakeProcessTable {
    std::optional<uid_t> ownerOf(pid_t, std::string_view) override { return std::nullopt; }
  } changing;
  changing.processes = {{602, 0, "/x/chess"}};
  Strategy strategy(changing);
  strategy.setBlacklist(listOf("*chess*", true));
  strategy.fewSecondHandler();
  EXPECT_TRUE(changing.killed.empty());
  EXPECT_TRUE(command_.posts.empty());
}

TEST(ProcessText, ReadsTheEffectiveUserAndProcessFolderNames) {
  EXPECT_EQ(effectiveUidFromStatus("Name:\tsleep\nUid:\t1000\t0\t0\t0\nGid:\t1\t1\t1\t1\n"), 0u);
  EXPECT_EQ(effectiveUidFromStatus("Uid:\t0\t65534\t0\t0"), 65534u);
  for (const char* status : {"Name:\tx\nUid:\t12\n", "Uid:\t1\t-3\t0\t0\n", ""})
    EXPECT_EQ(effectiveUidFromStatus(status), std::nullopt) << status;
  EXPECT_EQ(pidFromProcName("412"), 412);
  for (const char* name : {"self", "", "-1", "0", "12a", "99999999999"})
    EXPECT_EQ(pidFromProcName(name), std::nullopt) << name;
}

TEST(EnforcementOnThisMachine, NeverSignalsAPidThatNamesNoProcessOrItself) {
  const std::string probe = std::string(VESK_HELPERS_DIR) + "/probe";
  if (const std::string why = test::whyNobodyCannotRun(probe); !why.empty()) GTEST_SKIP() << why;
  auto run = test::startAsNobody(probe, {"kill"});
  EXPECT_EQ(run->readOutputToEnd(), "alive\n");
  EXPECT_EQ(run->waitUntilExit(), 0);
}

// A copy of a harmless program under a restricted name, running in a temporary folder.
std::unique_ptr<ChildProcess> runCopyOfSleep(const fs::path& as) {
  fs::create_directories(as.parent_path());
  fs::copy_file("/bin/sleep", as);
  ChildProcessPlan plan;
  plan.path = as.string();
  plan.arguments = {"600"};
  return ChildProcess::launch(plan);
}

TEST(EnforcementOnThisMachine, KillsARestrictedProcessAndDeletesItsBundle) {
  const passwd* account = ::getpwuid(::geteuid());
  const std::string user = account != nullptr ? account->pw_name : "";
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  root.write("Library/Application Support/VESK/.blacklist.xml",
             "<l><ns2:blacklisted><ns2:id>5</ns2:id><ns2:process>Chessgame</ns2:process>"
             "<ns2:kill>true</ns2:kill><ns2:delete>true</ns2:delete></ns2:blacklisted>"
             "<ns2:blacklisted><ns2:id>6</ns2:id><ns2:process>Exempt</ns2:process>"
             "<ns2:kill>true</ns2:kill><ns2:whitelistedUsers><ns2:username>" +
                 user + "</ns2:username></ns2:whitelistedUsers></ns2:blacklisted></l>");
  test::TemporaryFolder apps;
  const fs::path bundle = apps.path() / "Chessgame.app";
  auto restricted = runCopyOfSleep(bundle / "Contents/MacOS/Chessgame");
  auto exempt = runCopyOfSleep(apps.path() / "Exempt");

  // The table names this process with its executable and owner.
  const Value self(Dictionary{{"path", Value(fs::read_symlink("/proc/self/exe").string())},
                              {"pid", Value(static_cast<int>(::getpid()))},
                              {"uid", Value(static_cast<int>(::geteuid()))}});
  const Array listed = BSDProcessList::getProcessList();
  EXPECT_NE(std::find(listed.begin(), listed.end(), self), listed.end());

  Strategy strategy;
  RecordingCommand command;
  strategy.setCommand(&command);
  strategy.fewSecondHandler();

  EXPECT_EQ(restricted->waitUntilExit(), SIGKILL);
  EXPECT_FALSE(fs::exists(bundle));
  EXPECT_TRUE(exempt->isRunning());
  ASSERT_FALSE(command.posts.empty());
  EXPECT_EQ(command.posts[0].first, kBlacklistEvent);
  EXPECT_EQ(command.posts[0].second["ProcessID"],
            Value(static_cast<long>(restricted->processIdentifier())));
  EXPECT_EQ(command.posts[0].second["Owner"], Value(user));
  exempt->terminate();
  exempt->waitUntilExit();
}

}  // namespace
}  // namespace vesk
