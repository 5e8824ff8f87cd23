#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "fakes/FakeProcessTable.h"
#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"
#include "notifications/BusPeers.h"
#include "notifications/VESKNotificationCenter.h"
#include "platform/ChildProcess.h"
#include "restrictions/BSDProcessList.h"
#include "restrictions/EnforceRestrictionsAgentStrategy.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;
using Strategy = EnforceRestrictionsAgentStrategy;

TEST(Matching, ComparesOneTextAsAPatternOrExactly) {
  EXPECT_TRUE(Strategy::process("*chess*", "CHESSBOARD", false));
  EXPECT_TRUE(Strategy::process("*ÉCHECS*", "les échecs", false));
  EXPECT_TRUE(Strategy::process("what?", "what?", false));
  EXPECT_FALSE(Strategy::process("what?", "whats", false));        // "?" is only itself
  EXPECT_TRUE(Strategy::process("*/bin/*", "/usr/bin/x", false));  // "*" crosses "/"
  EXPECT_TRUE(Strategy::process("[cb]hess", "Bhess", false));
  EXPECT_TRUE(Strategy::process("*[abc*", "x[ABC", false));  // an unclosed "[" is itself
  EXPECT_FALSE(Strategy::process("*[abc*", "xa", false));
  for (const char* broad : {"*", "*.app", "*.APP", "*.app*", "**.app*", "**"})
    EXPECT_FALSE(Strategy::process(broad, "Chess.app", false)) << broad;
  EXPECT_TRUE(Strategy::process("Chess", "Chess", true));
  EXPECT_FALSE(Strategy::process("Chess", "chess", true));
  EXPECT_FALSE(Strategy::process("*", "*x", true));
}

TEST(Matching, TestsTheRightPartsOfAPath) {
  const std::string bundle = "/Applications/Chess.app/Contents/MacOS/Chess";
  EXPECT_TRUE(Strategy::blacklistProcess("*chess*", bundle, false));
  EXPECT_TRUE(Strategy::blacklistProcess("*chess*", "/usr/games/chessboard", false));
  EXPECT_FALSE(Strategy::blacklistProcess("*chess*", "/Users/u/chess/notes.txt", false));
  EXPECT_FALSE(Strategy::blacklistProcess("Chess", "/Applications/Chess.app", true));
  EXPECT_TRUE(Strategy::blacklistProcess("Chess", bundle, true));
  EXPECT_FALSE(Strategy::blacklistProcess("Chess", "/x/chess", true));
  // With ".app": any component whole.
  EXPECT_TRUE(Strategy::blacklistProcess("chess.app", bundle, false));
  EXPECT_TRUE(Strategy::blacklistProcess("Chess.app", bundle, true));
  EXPECT_FALSE(Strategy::blacklistProcess("*.app", bundle, false));
  // With "/": the same number of leading components.
  EXPECT_TRUE(Strategy::blacklistProcess("/Applications/Chess.app", bundle, true));
  EXPECT_TRUE(Strategy::blacklistProcess("/applications/*", bundle, false));
  EXPECT_FALSE(Strategy::blacklistProcess("/a/b/c/d/e/f/g", "/a/b", false));
  EXPECT_FALSE(Strategy::blacklistProcess("*chess*", std::nullopt, false));

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
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& [name, info] : posts) out.push_back(name);
    return out;
  }

  bool offersEverything = true;
  std::optional<std::string> user = "alice";
  std::vector<std::pair<std::string, Dictionary>> posts;
};

Blacklist listOf(const std::string& key, bool kill, bool exact = false, bool remove = false) {
  BlacklistedItem item;
  item.setBlacklistID("42");
  item.setProcess(key);
  item.setKillApp(kill);
  item.setRequireExactMatch(exact);
  item.setDeleteApp(remove);
  Blacklist list;
  list.emplace(key, item);
  return list;
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

TEST_F(Enforcement, KillsAndReportsAMatchingLaunchWithTypedPayloads) {
  strategy_.setBlacklist(listOf("*chess*", true));
  const std::string path = "/Applications/Chess.app/Contents/MacOS/Chess";
  strategy_.launchingApplication(launch(412, path));
  strategy_.launchingApplication(launch(413, path));
  EXPECT_EQ(table_.killed, (std::vector<pid_t>{412, 413}));
  ASSERT_EQ(
      command_.names(),
      (std::vector<std::string>{
          "com.vesksoftware.vesk.blacklistEvent", "com.vesksoftware.vesk.appLaunchingEvent",
          "com.vesksoftware.vesk.blacklistEvent", "com.vesksoftware.vesk.appLaunchingEvent"}));
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
  EXPECT_TRUE(strategy_.blacklist().at("*chess*").isRunning());
}

TEST_F(Enforcement, HandlesEveryMatchingEntryInTheListsOrder) {
  Blacklist list = listOf("Chess", true, true);
  list.merge(listOf("*chess*", true));
  list.merge(listOf("Chess.app", false, true));
  list.merge(listOf("/Applications/*", false));
  strategy_.setBlacklist(list);
  strategy_.launchingApplication(launch(412, "/Applications/Chess.app/Contents/MacOS/Chess"));
  std::vector<std::string> reported;
  for (const auto& [name, info] : command_.posts)
    if (name == "com.vesksoftware.vesk.blacklistEvent")
      reported.push_back(*info["Process"].string());
  EXPECT_EQ(reported,
            (std::vector<std::string>{"*chess*", "/Applications/*", "Chess", "Chess.app"}));
  EXPECT_EQ(table_.killed, (std::vector<pid_t>{412, 412}));  // asked once per killing entry
}

TEST_F(Enforcement, ReportsANonKillingMatchOnceUntilAPassFindsItGone) {
  strategy_.setBlacklist(listOf("Chess", false, true));
  table_.processes = {{500, 0, "/usr/games/Chess"}, {501, 0, "/bin/sh"}};
  strategy_.fewSecondHandler();
  strategy_.fewSecondHandler();  // still running: no second report
  EXPECT_EQ(command_.names(),
            (std::vector<std::string>{"com.vesksoftware.vesk.blacklistEvent",
                                      "com.vesksoftware.vesk.appLaunchingEvent",
                                      "com.vesksoftware.vesk.appLaunchingEvent"}));
  EXPECT_EQ(command_.posts[0].second["Owner"], Value("root"));  // the process's own user
  EXPECT_TRUE(table_.killed.empty());

  table_.processes = {{501, 0, "/bin/sh"}};
  strategy_.fewSecondHandler();
  EXPECT_FALSE(strategy_.blacklist().at("Chess").notified());
  table_.processes = {{502, 0, "/usr/games/Chess"}};
  strategy_.fewSecondHandler();
  EXPECT_EQ(command_.names().size(), 5u);
  EXPECT_EQ(command_.posts[3].first, "com.vesksoftware.vesk.blacklistEvent");
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

  // A command that offers no posting still gets the kill done.
  command_.offersEverything = false;
  command_.user = "bob";
  strategy_.launchingApplication(launch(413, "/x/chess"));
  EXPECT_EQ(table_.killed, std::vector<pid_t>{413});
  EXPECT_TRUE(command_.posts.empty());
}

TEST_F(Enforcement, CopesWithEntriesWithoutKeysAndAnEmptyList) {
  table_.processes = {{600, 0, "/bad/\xff\xfe"}, {601, 0, ""}};
  EXPECT_EQ(BSDProcessList::getProcessList(table_)[0], Value(Dictionary()));
  EXPECT_FALSE(BSDProcessList::processList(BSDProcessList::getProcessList(table_), 600));
  EXPECT_TRUE(BSDProcessList::processList(BSDProcessList::getProcessList(table_), 601));
  strategy_.fewSecondHandler();  // empty list: nothing at all
  strategy_.setBlacklist(listOf("*", true));
  strategy_.fewSecondHandler();
  EXPECT_TRUE(table_.killed.empty());
  EXPECT_TRUE(command_.posts.empty());
}

TEST(ProcessText, ReadsTheEffectiveUserAndProcessFolderNames) {
  EXPECT_EQ(effectiveUidFromStatus("Name:\tsleep\nUid:\t1000\t0\t0\t0\nGid:\t1\t1\t1\t1\n"), 0u);
  EXPECT_EQ(effectiveUidFromStatus("Uid:\t0\t65534\t0\t0"), 65534u);
  EXPECT_EQ(effectiveUidFromStatus("Name:\tx\nUid:\t12\n"), std::nullopt);
  EXPECT_EQ(effectiveUidFromStatus("Uid:\t1\t-3\t0\t0\n"), std::nullopt);
  EXPECT_EQ(effectiveUidFromStatus(""), std::nullopt);
  EXPECT_EQ(pidFromProcName("412"), 412);
  for (const char* name : {"self", "", "-1", "0", "12a", "99999999999"})
    EXPECT_EQ(pidFromProcName(name), std::nullopt) << name;
}

TEST(ProcessHandler, NeverStoresTheSerialNumberItIsGivenAndEndsWithTheSignal) {
  for (const char* version : {"10.8.5", "10.10", "14.0"}) {
    ::setenv("VESK_OS_VERSION", version, 1);
    test::FakeProcessTable table;
    VESKProcessHandler handler(77, ProcessSerialNumber{3, 4}, table);
    EXPECT_TRUE(handler.isProcessSerialNumberEmpty()) << version;
    EXPECT_EQ(handler.isOsVesionLessThanTenNine(), std::string(version) == "10.8.5");
    handler.killRunningProcess();
    for (const pid_t none : {0, -1, ::getpid()})
      VESKProcessHandler(none, ProcessSerialNumber{}, table).killRunningProcess();
    EXPECT_EQ(table.killed, std::vector<pid_t>{77}) << version;
  }
}

TEST(EnforcementOnThisMachine, NeverSignalsAPidThatNamesNoProcessOrItself) {
  const std::string probe = std::string(VESK_HELPERS_DIR) + "/kill_probe";
  if (const std::string why = test::whyNobodyCannotRun(probe); !why.empty()) GTEST_SKIP() << why;
  auto run = test::startProgram("/usr/bin/setpriv", test::asNobody(probe));
  EXPECT_EQ(run->readOutputToEnd(), "alive\n");
  EXPECT_EQ(run->waitUntilExit(), 0);
}

// Who owns the processes this test starts.
std::string userName() {
  const passwd* entry = ::getpwuid(::getuid());
  return entry != nullptr ? entry->pw_name : "";
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
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  root.write("Library/Application Support/VESK/.blacklist.xml",
             "<l><ns2:blacklisted><ns2:id>5</ns2:id><ns2:process>Chessgame</ns2:process>"
             "<ns2:kill>true</ns2:kill><ns2:delete>true</ns2:delete></ns2:blacklisted>"
             "<ns2:blacklisted><ns2:id>6</ns2:id><ns2:process>Exempt</ns2:process>"
             "<ns2:kill>true</ns2:kill><ns2:whitelistedUsers><ns2:username>" +
                 userName() + "</ns2:username></ns2:whitelistedUsers></ns2:blacklisted></l>");
  test::TemporaryFolder apps;
  const fs::path bundle = apps.path() / "Chessgame.app";
  auto restricted = runCopyOfSleep(bundle / "Contents/MacOS/Chessgame");
  auto exempt = runCopyOfSleep(apps.path() / "Exempt");

  Strategy strategy;
  RecordingCommand command;
  strategy.setCommand(&command);
  strategy.fewSecondHandler();

  EXPECT_EQ(restricted->waitUntilExit(), SIGKILL);
  EXPECT_FALSE(fs::exists(bundle));
  EXPECT_TRUE(exempt->isRunning());
  ASSERT_FALSE(command.posts.empty());
  EXPECT_EQ(command.posts[0].first, "com.vesksoftware.vesk.blacklistEvent");
  EXPECT_EQ(command.posts[0].second["ProcessID"],
            Value(static_cast<long>(restricted->processIdentifier())));
  EXPECT_EQ(command.posts[0].second["Owner"], Value(userName()));
  exempt->terminate();
  exempt->waitUntilExit();
}

// The agent's side of posting, as the agent command does it: the session user under
// "Username", through the channel to the daemon.
class ChannelCommand : public EnforcementCommand {
 public:
  bool respondsToSelector(std::string_view) const override { return true; }
  std::optional<std::string> userName() override { return "alice"; }
  void postNotificationToDaemon(const std::string& name, const Dictionary& userInfo) override {
    Dictionary withUser = userInfo;
    withUser.set("Username", Value("alice"));
    center_.postNotificationName(name, std::nullopt, withUser);
  }

 private:
  VESKNotificationCenter center_;
};

TEST(EnforcementOnThisMachine, TellsTheDaemonInAnotherProcess) {
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  test::PrivateBus bus;
  test::ServingDaemon daemon;
  test::TemporaryFolder apps;
  auto restricted = runCopyOfSleep(apps.path() / "Chessgame");

  Strategy strategy;
  strategy.setBlacklist(listOf("*chessgame*", true));
  ChannelCommand command;
  strategy.setCommand(&command);
  strategy.fewSecondHandler();
  EXPECT_EQ(restricted->waitUntilExit(), SIGKILL);
  const std::string pid = std::to_string(restricted->processIdentifier());
  EXPECT_EQ(daemon.nextLine(),
            "{\"name\":\"com.vesksoftware.vesk.blacklistEvent\",\"userInfo\":{\"AppPath\":\"" +
                (apps.path() / "Chessgame").string() + "\",\"BlacklistID\":42,\"Owner\":\"" +
                userName() +
                "\",\"Process\":\"*chessgame*\","
                "\"ProcessID\":" +
                pid + ",\"Username\":\"alice\"}}");
  EXPECT_EQ(daemon.nextLine().rfind(
                "{\"name\":\"com.vesksoftware.vesk.appLaunchingEvent\",\"userInfo\":{", 0),
            0u);
}

}  // namespace
}  // namespace vesk
