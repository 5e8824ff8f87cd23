// The agent over a session of fakes: what it tells the daemon of each event, in which state,
// and what it kills.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "agent/LaunchAgentCommand.h"
#include "fakes/FakeDexloNotifications.h"
#include "fakes/FakeUserSession.h"
#include "foundation/Paths.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

using Names = std::vector<std::string>;

// What a test puts in the next session before its workspace starts.
std::function<void(test::FakeUserSession&)> preparing;

// Repeating timers the test fires; `running` counts those not invalidated.
struct Timers : TimerSource {
  std::shared_ptr<Timer> scheduledTimer(double, bool, std::function<void(Timer&)> fire) override {
    all.push_back(std::make_shared<test::ManualTimers>());
    (void)all.back()->scheduledTimer(0, false, std::move(fire));
    handles.push_back(std::make_shared<Handle>());
    return handles.back();
  }
  struct Handle : Timer {
    bool valid = true;
    void invalidate() override { valid = false; }
    bool isValid() const override { return valid; }
  };
  long running() const {
    return std::count_if(handles.begin(), handles.end(), [](auto& h) { return h->valid; });
  }
  std::vector<std::shared_ptr<test::ManualTimers>> all;
  std::vector<std::shared_ptr<Handle>> handles;
};

class TestAgent : public LaunchAgentCommand {
 public:
  test::FakeUserSession* session = nullptr;
  Timers timerSource;
  std::vector<std::pair<std::string, Dictionary>> posts;  // guarded by postsLock
  std::mutex postsLock;
  std::condition_variable posted;
  test::DexloRecord dexlo;

  // Waits until there are `count` posts; false when ten seconds passed first.
  bool waitForPosts(std::size_t count) {
    std::unique_lock<std::mutex> hold(postsLock);
    return posted.wait_for(hold, std::chrono::seconds(10), [&] { return posts.size() >= count; });
  }

  // The short names posted since the last look, each with the process it names, if any.
  Names take() {
    Names names;
    for (const auto& [name, info] : std::exchange(posts, {})) {
      const Value& pid =
          info.contains("ProcessID") ? info["ProcessID"] : info[kApplicationProcessIdentifierKey];
      names.push_back(name.substr(22) + (pid.isNil() ? "" : " " + pid.stringValue()));
    }
    return names;
  }

 protected:
  std::unique_ptr<UserSession> makeUserSession() override {
    auto made = std::make_unique<test::FakeUserSession>();
    session = made.get();
    if (preparing) preparing(*made);
    return made;
  }
  TimerSource& timers() override { return timerSource; }
  ProcessTable& processTable() override { return session->table; }
  void sendToDaemon(const std::string& name, const Dictionary& userInfo) override {
    std::lock_guard<std::mutex> hold(postsLock);
    posts.emplace_back(name, userInfo);
    posted.notify_all();
  }
  std::unique_ptr<DexloNotifications> makeDexloNotifications() override {
    return std::make_unique<test::FakeDexloNotifications>(
        fsPath("/home/Library/Preferences/com.vesksoftware.dexlo.plist"), dexlo);
  }
};

// A process of the user in the desktop launch unit of `app` (none: a plain process).
void running(test::FakeUserSession& session, pid_t pid, const std::string& path,
             const std::string& app = "", uid_t uid = startingUserId()) {
  session.table.processes.push_back({pid, uid, path});
  if (!app.empty())
    session.table.cgroups[pid] = "0::/user.slice/app.slice/app-gnome-" + app + "-1.scope\n";
}

class LaunchAgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::useSandbox(sandbox.path());
    sandbox.write("Library/Application Support/VESK/.blacklist.xml",
                  "<?xml version=\"1.0\"?><ns2:list xmlns:ns2=\"urn:example\"><ns2:blacklisted>"
                  "<ns2:id>42</ns2:id><ns2:process>forbidden</ns2:process><ns2:kill>true"
                  "</ns2:kill></ns2:blacklisted></ns2:list>");
  }
  // An agent made as the entry point makes it; `console` has the screen.
  void start(std::function<void(test::FakeUserSession&)> prepare = {},
             std::optional<std::string> console = std::nullopt) {
    preparing = std::move(prepare);
    agent = VKCommand::create<TestAgent>({"veskAgent"});
    if (console) agent->session->console = console;
  }
  test::FakeUserSession& session() { return *agent->session; }
  void launch(pid_t pid, const std::string& path, const std::string& app = "",
              uid_t uid = startingUserId()) {
    running(session(), pid, path, app, uid);
    session().processes.exec(pid, uid, path);
  }
  // Hands the events to the agent's distributed observers, and lets them run.
  void deliver(const Names& names) {
    for (const std::string& name : names) session().distributed(SessionEvent{name, {}, true});
    bool heard = false;
    auto& center = DistributedNotificationCenter::defaultCenter();
    const auto id = center.addObserver("test.drained", [&](auto&&...) { heard = true; });
    center.deliverLocally("test.drained", std::nullopt, {});
    EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return heard; }, 10));
    center.removeObserver(id);
  }
  std::string pidFile() const {
    return fsPath("/Library/Application Support/VESK/bin/" + *agent->userName() + ".pid");
  }

  test::TemporaryFolder sandbox;
  std::unique_ptr<TestAgent> agent;
};

TEST_F(LaunchAgentTest, RelaysEverySessionEventWithTheRecordItCalls) {
  start([](test::FakeUserSession& session) { running(session, 70, "/usr/bin/editor", "editor"); });
  ASSERT_TRUE(agent->startAgent());
  EXPECT_EQ(agent->take(), (Names{"workspaceActivated", "agentStart", "appLaunchingEvent 70",
                                  "appLaunchedEvent 70"}));
  session().front.bringToFront(70);
  const std::vector<std::pair<std::string, Dictionary>> firstPosts = agent->posts;
  EXPECT_EQ(firstPosts.at(0).second, (Dictionary{{kApplicationPathKey, "/usr/bin/editor"},
                                                 {kApplicationNameKey, "editor"},
                                                 {kApplicationProcessIdentifierKey, 70LL},
                                                 {"Username", *agent->userName()}}));
  launch(71, "/usr/bin/viewer", "viewer");
  session().processes.exit(71);
  session().front.bringToFront(99);  // a window of no known process: no record, no post
  session().front.front = 70;
  Workspace& workspace = session().workspace();
  for (const char* name : {kWillSleep, kDidWake, kWillPowerOff})
    workspace.postNotification(name, {});
  EXPECT_EQ(agent->timerSource.running(), 0);  // stopped, started again, stopped
  EXPECT_EQ(agent->timerSource.handles.size(), 2u);
  deliver({kScreenSaverDidStart, kScreenSaverDidStop, kScreenIsLocked, kScreenIsUnlocked,
           "com.apple.logoutContinued", "com.vesksoftware.vesk.survoEvent",
           "com.vesksoftware.vesk.updateBadgeQuantity",
           "com.vesksoftware.vesk.didReceiveNotification"});
  EXPECT_EQ(agent->take(),
            (Names{"appActivationEvent 70", "appLaunchingEvent 71", "appLaunchedEvent 71",
                   "appTerminatedEvent 71", "appActivationEvent 70", "systemSleepEvent",
                   "systemWakeEvent 70", "systemPowerOffEvent", "screensaverActivatedEvent",
                   "screensaverDeactivatedEvent 70", "screenLockedEvent", "screenUnlockedEvent 70",
                   "userLogOut 70", "survoEvent 70"}));
  EXPECT_FALSE(agent->exitLaunchAgent());  // only a Guest on 10.9 ends at log-out

  ::setenv("VESK_OS_VERSION", "10.9.5", 1);
  start({}, "Guest");
  agent->setUserName("Guest");
  ASSERT_TRUE(agent->startAgent());
  deliver({"com.apple.logoutContinued"});
  EXPECT_TRUE(agent->exitLaunchAgent());
  ::setenv("VESK_OS_VERSION", "10.8.5", 1);
  EXPECT_EQ(agent->logoutEventName(), "com.apple.userWillLogOut");
}

TEST_F(LaunchAgentTest, HearsOnlyItsActivationWhileAnotherUserHasTheScreen) {
  start({}, "someone-else");
  ASSERT_TRUE(agent->startAgent());
  launch(90, "/opt/forbidden", "game");  // no launch listener, so no exec check either
  deliver({kScreenIsLocked});
  EXPECT_EQ(agent->take(), (Names{"workspaceActivated", "agentStart"}));
  EXPECT_TRUE(session().table.killed.empty());
  for (const char* name :
       {kSessionDidBecomeActive, kSessionDidResignActive, kSessionDidBecomeActive})
    session().workspace().postNotification(name, {});
  EXPECT_EQ(agent->timerSource.running(), 2);  // a start does not stop the one running
  deliver({kScreenIsLocked});
  EXPECT_EQ(agent->take(), (Names{"workspaceActivated", "workspaceDeactivated",
                                  "workspaceActivated", "screenLockedEvent"}));
}

TEST_F(LaunchAgentTest, KillsARestrictedProgramAtItsExecReportsItOnceAndAgainInThePass) {
  start(
      [](test::FakeUserSession& session) { running(session, 60, "/opt/forbidden", "forbidden"); });
  ASSERT_TRUE(agent->startAgent());               // what ran before the agent is checked too
  launch(61, "/usr/local/bin/forbidden", "", 0);  // any user's program, application or not
  launch(62, "/opt/forbidden", "forbidden");
  EXPECT_EQ(session().table.killed, (std::vector<pid_t>{60, 61, 62}));
  EXPECT_EQ(agent->take(),
            (Names{"workspaceActivated", "agentStart", "appLaunchingEvent 60", "blacklistEvent 60",
                   "appLaunchingEvent 60", "appLaunchedEvent 60", "blacklistEvent 61",
                   "appLaunchingEvent 61", "blacklistEvent 62", "appLaunchingEvent 62",
                   "appLaunchingEvent 62", "appLaunchedEvent 62"}));
  session().table.killed.clear();
  agent->timerSource.all.front()->fireAll();
  EXPECT_EQ(session().table.killed, (std::vector<pid_t>{60, 61, 62}));
}

TEST_F(LaunchAgentTest, BelievesOnlyAPidFileOnlyItCouldWriteAndKillsWhatItNames) {
  const struct {
    std::string text;
    mode_t mode;
    bool running;
    std::vector<pid_t> killed;
  } cases[] = {
      {"4242", 0644, true, {4242}},
      {" 4242\n", 0644, true, {4242}},
      {"", 0644, false, {}},
      {"garbage", 0644, false, {}},
      {"-1", 0644, false, {}},
      {"4343", 0644, false, {4343}},  // no such process: killed all the same
      {"4242", 0666, false, {}},      // anyone could have written it
  };
  for (const auto& c : cases) {
    start([](test::FakeUserSession& session) { running(session, 4242, "/usr/bin/veskAgent"); });
    std::filesystem::remove(pidFile());
    sandbox.write(std::filesystem::relative(pidFile(), sandbox.path()), c.text);
    ::chmod(pidFile().c_str(), c.mode);
    EXPECT_EQ(agent->isAgentAlreadyRunning(), c.running) << c.text;
    agent->checkAgentAlreadyRunningForCurrentUser();
    EXPECT_EQ(session().table.killed, c.killed) << c.text;
    agent->writePIDFile();
    EXPECT_EQ(test::readFile(pidFile()), std::to_string(::getpid()));
  }
  std::filesystem::remove(pidFile());
  std::filesystem::create_symlink(sandbox.write("elsewhere", "4242"), pidFile());
  EXPECT_FALSE(agent->isAgentAlreadyRunning());  // a link is never followed
}

TEST_F(LaunchAgentTest, AClickGoesToDexloOrRunsItsPolicyAndAPolicyIdMustBeANumber) {
  sandbox.write("Library/Preferences/com.vesksoftware.vesk.plist",
                "<plist><dict><key>dexlo_app_path</key><string>/opt/Dexlo.app</string></dict>"
                "</plist>");
  start();
  ASSERT_TRUE(agent->startAgent());
  agent->take();
  agent->notificationMessageActivated({"", std::nullopt, {{"dexloalert", true}}});
  EXPECT_EQ(agent->dexlo.launched, std::vector<std::string>{"/opt/Dexlo.app"});
  EXPECT_EQ(agent->dexloPath(), "/opt/Dexlo.app");

  // Not Dexlo's: the policy it names runs on a thread of its own (policy 12 exits with 12).
  agent->notificationMessageActivated({"", std::nullopt, {{"policyid", "12"}}});
  ASSERT_TRUE(agent->waitForPosts(7));  // ... then Started, four pieces and PolicyError
  EXPECT_EQ(agent->posts.front().second, (Dictionary{{"EntityId", 12LL},
                                                     {"ResponseType", "MessageReceived"},
                                                     {"Username", *agent->userName()}}));
  agent->posts.clear();

  const Dictionary request{{"EntityType", "policy"},
                           {"RequestType", "TriggerPolicy"},
                           {"EntityId", Dictionary{{"id", 3}}}};
  agent->requestFromVeskDaemon(request);
  ASSERT_EQ(agent->posts.size(), 2u);
  EXPECT_EQ(agent->posts[1].second["ResponseType"], Value("PolicyError"));
  EXPECT_EQ(agent->posts[1].second["Error"].error()->domain(), "com.vesksoftware.core.errors");
}

}  // namespace
}  // namespace vesk
