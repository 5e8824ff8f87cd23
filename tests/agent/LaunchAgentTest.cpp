// The agent's start-up and relay over fake sessions: what it tells the daemon of each event,
// in which state, and what it kills.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "agent/LaunchAgentCommand.h"
#include "fakes/FakeProcessTable.h"
#include "fakes/FakeSession.h"
#include "foundation/Paths.h"
#include "helpers/TestSupport.h"
#include "platform/ProcessSecurity.h"
#include "platform/Users.h"

namespace vesk {
namespace {

using Posts = std::vector<std::pair<std::string, Dictionary>>;

}  // namespace

void PrintTo(const Dictionary& dictionary, std::ostream* out) { *out << dictionary.description(); }

namespace {

constexpr const char* kPrefix = "com.vesksoftware.vesk.";

// A session of fakes: the workspace is real, over a fake process table and front window.
struct FakeUserSession : UserSession {
  void start(Workspace::ExecHook hook, SessionEventSink sink) override {
    workspace_.setExecHook(std::move(hook));
    distributed = std::move(sink);
    workspace_.start();
  }
  Workspace& workspace() override { return workspace_; }
  std::optional<std::string> consoleUser() override { return console; }

  test::FakeProcessTable table;
  test::FakeProcessEvents processes;
  test::FakeDesktopApplications desktop;
  test::FakeFrontWindow front;
  test::ManualTimers lookAgain;
  Workspace workspace_{startingUserId(), table, processes, desktop, front, lookAgain};
  SessionEventSink distributed;
  std::optional<std::string> console = currentUserShortName();
};

// Repeating timers the test fires and counts.
struct CountingTimers : TimerSource {
  struct Repeating : Timer {
    std::function<void(Timer&)> fire;
    bool valid = true;
    void invalidate() override { valid = false; }
    bool isValid() const override { return valid; }
  };
  std::shared_ptr<Timer> scheduledTimer(double interval, bool,
                                        std::function<void(Timer&)> fire) override {
    EXPECT_EQ(interval, 15.0);
    auto timer = std::make_shared<Repeating>();
    timer->fire = std::move(fire);
    all.push_back(timer);
    return timer;
  }
  int running() const {
    return static_cast<int>(
        std::count_if(all.begin(), all.end(), [](const auto& t) { return t->valid; }));
  }
  std::vector<std::shared_ptr<Repeating>> all;
};

// What a test puts in the next session before its workspace starts.
std::function<void(FakeUserSession&)> preparing;

// Lets the distributed observers hear what was handed to them: they run on this thread's
// loop, in order, so once a last notification is heard every earlier one has been.
void drain() {
  bool heard = false;
  auto& center = DistributedNotificationCenter::defaultCenter();
  const auto id = center.addObserver("test.drained", [&](auto&&...) { heard = true; });
  center.deliverLocally("test.drained", std::nullopt, {});
  EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return heard; }, 10));
  center.removeObserver(id);
}

class TestAgent : public LaunchAgentCommand {
 public:
  FakeUserSession* session = nullptr;
  CountingTimers timerSource;
  Posts posts;

  // The posts since the last look, each with its short name.
  Posts take() {
    Posts taken;
    for (auto& [name, info] : std::exchange(posts, {}))
      taken.emplace_back(name.substr(std::string(kPrefix).size()), info);
    return taken;
  }

 protected:
  std::unique_ptr<UserSession> makeUserSession() override {
    auto made = std::make_unique<FakeUserSession>();
    session = made.get();
    if (preparing) preparing(*made);
    return made;
  }
  TimerSource& timers() override { return timerSource; }
  ProcessTable& processTable() override { return session->table; }
  void sendToDaemon(const std::string& name, const Dictionary& userInfo) override {
    posts.emplace_back(name, userInfo);
  }
};

std::string blacklistEntry(const std::string& process, bool kill) {
  return "<ns2:blacklisted><ns2:id>42</ns2:id><ns2:name>Game</ns2:name><ns2:process>" + process +
         "</ns2:process><ns2:kill>" + (kill ? "true" : "false") + "</ns2:kill></ns2:blacklisted>";
}

class LaunchAgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::useSandbox(sandbox.path());
    sandbox.write("Library/Application Support/VESK/.blacklist.xml",
                  "<?xml version=\"1.0\"?><ns2:list xmlns:ns2=\"urn:example\">" +
                      blacklistEntry("forbidden", true) + "</ns2:list>");
  }
  // An agent made as the entry point makes it, its session holding what `running` put there.
  TestAgent& start(bool active = true, std::vector<std::string> arguments = {},
                   std::function<void(FakeUserSession&)> prepare = {}) {
    arguments.insert(arguments.begin(), "veskAgent");
    preparing = std::move(prepare);
    agent = VKCommand::create<TestAgent>(arguments);
    preparing = {};
    user = *agent->userName();
    if (!active) session().console = "someone-else";
    return *agent;
  }
  FakeUserSession& session() { return *agent->session; }
  // A process of the user in the desktop launch unit of `app` (none: a plain process).
  static void running(FakeUserSession& session, pid_t pid, const std::string& path,
                      const std::string& app = "") {
    session.table.processes.push_back({pid, startingUserId(), path});
    if (!app.empty())
      session.table.cgroups[pid] = "0::/user.slice/app.slice/app-gnome-" + app + "-1.scope\n";
  }
  void launch(pid_t pid, const std::string& path, const std::string& app = "") {
    running(session(), pid, path, app);
    session().processes.exec(pid, startingUserId(), path);
  }
  void deliver(const std::string& name, const Dictionary& info = {}) {
    session().distributed(SessionEvent{name, info, true});
    drain();
  }
  static Dictionary record(pid_t pid, const std::string& path, const std::string& name) {
    return {{kApplicationPathKey, path},
            {kApplicationNameKey, name},
            {kApplicationProcessIdentifierKey, static_cast<long long>(pid)}};
  }
  Dictionary with(Dictionary info) const {
    info.set("Username", user);
    return info;
  }
  // The agent of `name`, at the console.
  void rename(const std::string& name) {
    agent->setUserName(name);
    session().console = user = name;
  }
  std::string pidFile() const {
    return fsPath("/Library/Application Support/VESK/bin/" + user + ".pid");
  }

  test::TemporaryFolder sandbox;
  std::unique_ptr<TestAgent> agent;
  std::string user;
};

TEST_F(LaunchAgentTest, RelaysEverySessionEventWithItsRecord) {
  start(true, {},
        [](FakeUserSession& session) { running(session, 70, "/usr/bin/editor", "editor"); });
  ASSERT_TRUE(agent->startAgent());
  const Dictionary editor = record(70, "/usr/bin/editor", "editor");
  EXPECT_EQ(agent->take(), (Posts{{"workspaceActivated", with({})},
                                  {"agentStart", with({{"pid", std::to_string(::getpid())}})},
                                  {"appLaunchingEvent", with(editor)},
                                  {"appLaunchedEvent", with(editor)}}));

  session().front.bringToFront(70);
  launch(71, "/usr/bin/viewer", "viewer");
  const Dictionary viewer = record(71, "/usr/bin/viewer", "viewer");
  session().processes.exit(71);
  session().front.bringToFront(99);  // a window of no known process: no record, no post
  EXPECT_EQ(agent->take(), (Posts{{"appActivationEvent", with(editor)},
                                  {"appLaunchingEvent", with(viewer)},
                                  {"appLaunchedEvent", with(viewer)},
                                  {"appTerminatedEvent", with(viewer)},
                                  {"appActivationEvent", with(editor)}}));

  session().front.front = 70;
  Workspace& workspace = session().workspace();
  workspace.postNotification(kWillSleep, {});
  EXPECT_EQ(agent->timerSource.running(), 0);
  workspace.postNotification(kDidWake, {});
  EXPECT_EQ(agent->timerSource.running(), 1);
  workspace.postNotification(kWillPowerOff, {});
  EXPECT_EQ(agent->timerSource.running(), 0);
  const Dictionary saver = {{"level", 3LL}};
  for (const char* name :
       {kScreenSaverDidStart, kScreenSaverDidStop, kScreenIsLocked, kScreenIsUnlocked,
        "com.apple.logoutContinued", "com.vesksoftware.vesk.survoEvent",
        "com.vesksoftware.vesk.updateBadgeQuantity", "com.vesksoftware.vesk.didReceiveNotification",
        "unrelated"})
    deliver(name, std::string(name) == kScreenSaverDidStart ? saver : Dictionary{});
  EXPECT_EQ(agent->take(), (Posts{{"systemSleepEvent", with({})},
                                  {"systemWakeEvent", with(editor)},
                                  {"systemPowerOffEvent", with({})},
                                  {"screensaverActivatedEvent", with(saver)},
                                  {"screensaverDeactivatedEvent", with(editor)},
                                  {"screenLockedEvent", with({})},
                                  {"screenUnlockedEvent", with(editor)},
                                  {"userLogOut", with(editor)},
                                  {"survoEvent", with(editor)}}));
  EXPECT_FALSE(agent->exitLaunchAgent());  // only a Guest on 10.9 ends at log-out
}

TEST_F(LaunchAgentTest, SwitchingSessionsReplacesTheListenersOnce) {
  start();
  ASSERT_TRUE(agent->startAgent());
  agent->take();
  Workspace& workspace = session().workspace();
  workspace.postNotification(kSessionDidResignActive, {});
  EXPECT_FALSE(agent->activated());
  EXPECT_EQ(agent->timerSource.running(), 0);
  launch(80, "/usr/bin/viewer", "viewer");  // heard by nobody while away
  deliver(kScreenIsLocked);
  EXPECT_EQ(agent->take(), (Posts{{"workspaceDeactivated", with({})}}));

  // Away and back twice: each listener is there once, and the exec check is back.
  for (int round = 0; round < 2; ++round) {
    workspace.postNotification(kSessionDidBecomeActive, {});
    workspace.postNotification(kSessionDidResignActive, {});
  }
  workspace.postNotification(kSessionDidBecomeActive, {});
  EXPECT_TRUE(agent->activated());
  agent->take();
  launch(81, "/usr/bin/viewer", "viewer");
  launch(82, "/opt/forbidden");
  deliver(kScreenIsLocked);
  const Posts posts = agent->take();
  const auto count = [&](const std::string& name) {
    return std::count_if(posts.begin(), posts.end(),
                         [&](const auto& post) { return post.first == name; });
  };
  EXPECT_EQ(count("appLaunchingEvent"), 2);  // the viewer's, and the enforcer's for the kill
  EXPECT_EQ(count("appLaunchedEvent"), 1);
  EXPECT_EQ(count("screenLockedEvent"), 1);
  EXPECT_EQ(count("blacklistEvent"), 1);
  EXPECT_EQ(session().table.killed, std::vector<pid_t>{82});
}

TEST_F(LaunchAgentTest, StartsInactiveWhenAnotherUserHasTheConsole) {
  start(false);
  ASSERT_TRUE(agent->startAgent());
  EXPECT_FALSE(agent->activated());
  launch(90, "/opt/forbidden", "game");  // no exec check while away, as no launch listener
  deliver(kScreenIsLocked);
  EXPECT_EQ(agent->take(), (Posts{{"workspaceActivated", with({})},
                                  {"agentStart", with({{"pid", std::to_string(::getpid())}})}}));
  EXPECT_TRUE(session().table.killed.empty());
  session().console = user;
  session().workspace().postNotification(kSessionDidBecomeActive, {});
  deliver(kScreenIsLocked);
  EXPECT_EQ(agent->take(),
            (Posts{{"workspaceActivated", with({})}, {"screenLockedEvent", with({})}}));
}

TEST_F(LaunchAgentTest, KillsARestrictedProgramAtItsExecAndReportsItOnce) {
  // Already running: checked at start-up.
  start(true, {},
        [](FakeUserSession& session) { running(session, 60, "/opt/forbidden", "forbidden"); });
  ASSERT_TRUE(agent->startAgent());
  EXPECT_EQ(session().table.killed, std::vector<pid_t>{60});
  Posts posts = agent->take();
  ASSERT_EQ(posts.size(), 6u);
  EXPECT_EQ(posts[2].first, "appLaunchingEvent");
  EXPECT_EQ(posts[3].first, "blacklistEvent");
  EXPECT_EQ(posts[5].first, "appLaunchedEvent");

  // Any user's program, application or not: killed at exec, one report each.
  session().table.processes.push_back({61, 0, "/usr/local/bin/forbidden"});
  session().processes.exec(61, 0, "/usr/local/bin/forbidden");
  launch(62, "/opt/forbidden", "forbidden");
  EXPECT_EQ(session().table.killed, (std::vector<pid_t>{60, 61, 62}));
  posts = agent->take();
  std::vector<std::string> names;
  for (const auto& [name, info] : posts) names.push_back(name);
  EXPECT_EQ(names, (std::vector<std::string>{"blacklistEvent", "appLaunchingEvent",
                                             "blacklistEvent", "appLaunchingEvent",
                                             "appLaunchingEvent", "appLaunchedEvent"}));
  EXPECT_EQ(posts[0].second["ProcessID"].integerValue(), 61);
  EXPECT_EQ(posts[0].second["Owner"].stringValue(), userNameForUid(0));
  EXPECT_EQ(posts[0].second["AppPath"].stringValue(), "/usr/local/bin/forbidden");
  EXPECT_EQ(posts[0].second["BlacklistID"].integerValue(), 42);

  // The pass every fifteen seconds finds what still runs.
  session().table.killed.clear();
  for (const auto& timer : agent->timerSource.all) timer->fire(*timer);
  EXPECT_EQ(session().table.killed, (std::vector<pid_t>{60, 61, 62}));
}

TEST_F(LaunchAgentTest, BelievesOnlyAPidFileThatNamesALiveProcessAndThatOnlyItCouldWrite) {
  // The newest agent wins: whatever a believable file names is killed, running or not.
  const struct {
    std::string text;
    mode_t mode;
    bool running;
    std::vector<pid_t> killed;
  } cases[] = {
      {"4242", 0644, true, {4242}},  {" 4242\n", 0644, true, {4242}}, {"", 0644, false, {}},
      {"garbage", 0644, false, {}},  {"0", 0644, false, {}},          {"-1", 0644, false, {}},
      {"4343", 0644, false, {4343}},  // no such process
      {"4242", 0666, false, {}},      // anyone could have written it
  };
  for (const auto& c : cases) {
    start();
    session().table.processes.push_back({4242, 0, "/usr/local/vesk/bin/veskAgent"});
    std::filesystem::remove(pidFile());
    sandbox.write(std::filesystem::relative(pidFile(), sandbox.path()), c.text, c.mode);
    ::chmod(pidFile().c_str(), c.mode);
    EXPECT_EQ(agent->isAgentAlreadyRunning(), c.running) << c.text;
    agent->checkAgentAlreadyRunningForCurrentUser();
    EXPECT_EQ(session().table.killed, c.killed) << c.text;
    agent->writePIDFile();
    EXPECT_EQ(test::readFile(pidFile()), std::to_string(::getpid()));
  }
  // A link is never followed.
  std::filesystem::remove(pidFile());
  std::filesystem::create_symlink(sandbox.write("elsewhere", "4242"), pidFile());
  EXPECT_FALSE(agent->isAgentAlreadyRunning());
}

TEST_F(LaunchAgentTest, AGuestOnTenNineLeavesARunningAgentAloneAndEndsAtLogOut) {
  for (const char* version : {"10.9.5", "10.10"}) {
    ::setenv("VESK_OS_VERSION", version, 1);
    start(true, {"-verbose"});
    rename("guest");
    session().table.processes.push_back({4242, 0, "/usr/local/vesk/bin/veskAgent"});
    sandbox.write(std::filesystem::relative(pidFile(), sandbox.path()), "4242");
    const bool tenNine = std::string(version) == "10.9.5";
    testing::internal::CaptureStdout();
    EXPECT_EQ(agent->startAgent(), !tenNine);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.find("veskAgent for guest account on 10.9 is already running...exiting") !=
                  std::string::npos,
              tenNine);
    EXPECT_EQ(test::readFile(pidFile()), tenNine ? "4242" : std::to_string(::getpid()));
    EXPECT_EQ(session().table.killed.size(), tenNine ? 0u : 1u);
    if (tenNine) continue;
    deliver("com.apple.logoutContinued");
    EXPECT_FALSE(agent->exitLaunchAgent());  // a Guest on 10.10 runs on
  }
  ::setenv("VESK_OS_VERSION", "10.9.2", 1);
  start();
  rename("Guest");
  std::filesystem::remove(pidFile());
  ASSERT_TRUE(agent->startAgent());
  deliver("com.apple.logoutContinued");
  EXPECT_TRUE(agent->exitLaunchAgent());
  ::setenv("VESK_OS_VERSION", "10.8.5", 1);
  EXPECT_EQ(agent->logoutEventName(), "com.apple.userWillLogOut");
}

TEST_F(LaunchAgentTest, LogsEveryDistributedNotificationButTheFrequentOneWhenAskedTo) {
  start(true, {"-verbose", "-allNotifications"});
  ASSERT_TRUE(agent->allNotifications());
  testing::internal::CaptureStdout();
  ASSERT_TRUE(agent->startAgent());
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::HasSubstr("Installing the *any* event handler..."));
  testing::internal::CaptureStdout();
  DistributedNotificationCenter::defaultCenter().deliverLocally("O3EngineChanged", std::nullopt,
                                                                {});
  DistributedNotificationCenter::defaultCenter().deliverLocally("com.example.ping", "sender",
                                                                {{"n", 1LL}});
  drain();
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_THAT(printed, testing::HasSubstr(" verbose: Received notification (User: " + user +
                                          "): {name = com.example.ping; object = sender; "
                                          "userInfo = {\n    n = 1;\n}}\n"));
  EXPECT_THAT(printed, testing::Not(testing::HasSubstr("O3EngineChanged")));
}

}  // namespace
}  // namespace vesk
