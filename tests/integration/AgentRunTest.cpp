// The real agent in a sandbox root, on a private system bus with `vesk-center serve` as the
// daemon and a fake login manager: what reaches the daemon, what gets killed, and how the agent
// copes with peers that come, go or are missing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"
#include "notifications/SystemBus.h"
#include "platform/ChildProcess.h"
#include "platform/Users.h"

extern char** environ;

namespace vesk {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;
// Every agent checks every program on the machine: each test's agents restrict a name of
// their own, so that tests running side by side leave each other's programs alone.
const std::string kRestricted = "vesk-forbidden-" + std::to_string(::getpid());
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// A child whose output is read line by line.
struct Peer {
  explicit Peer(std::unique_ptr<ChildProcess> child) : process(std::move(child)) {}

  // The first line after the last one found that holds `text` (all of it); "" when none came
  // in ten seconds.
  std::string lineWith(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::size_t at;
    while ((at = printed.find(text, from)) == std::string::npos ||
           printed.find('\n', at) == std::string::npos)
      if (std::chrono::steady_clock::now() > deadline || !process->readOutputFor(printed, 100))
        return "";
    const std::size_t start = printed.rfind('\n', at);
    const std::size_t begin = start == std::string::npos || start < from ? from : start + 1;
    from = printed.find('\n', at) + 1;
    return printed.substr(begin, from - 1 - begin);
  }
  // The next `count` posts the daemon printed: short names, each with the process id it
  // carries, if any.
  std::vector<std::string> names(int count) {
    std::vector<std::string> names;
    while (count-- > 0) {
      const std::string prefix = "{\"name\":\"com.vesksoftware.vesk.";
      const std::string line = lineWith(prefix);
      if (line.empty()) break;
      const auto value = [&](const std::string& key) -> std::string {
        const std::size_t at = line.find("\"" + key + "\":");
        if (at == std::string::npos) return "";
        const std::size_t from = line.find_first_not_of('"', at + key.size() + 3);
        return " " + line.substr(from, line.find_first_of(",\"}", from) - from);
      };
      names.push_back(line.substr(prefix.size(), line.find('"', prefix.size()) - prefix.size()) +
                      value("NSApplicationProcessIdentifier") + value("ProcessID") + value("pid"));
    }
    return names;
  }

  std::unique_ptr<ChildProcess> process;
  std::string printed;  // all of it
  std::size_t from = 0;
};

pid_t spawn(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  EXPECT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ), 0);
  return pid;
}

// How `pid` ended: the signal that killed it, or 0.
int killedBy(pid_t pid) {
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) return -1;
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

class AgentRun : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the agent's sandbox runs need root";
    test::useSandbox(root.path());
    ::chmod(root.path().c_str(), 0755);
    root.write("Library/Application Support/VESK/.blacklist.xml",
               "<?xml version=\"1.0\"?><ns2:list xmlns:ns2=\"urn:example\"><ns2:blacklisted>"
               "<ns2:id>42</ns2:id><ns2:process>" +
                   kRestricted +
                   "</ns2:process><ns2:kill>true</ns2:kill></ns2:blacklisted></ns2:list>");
    restricted = (root.path() / "bin" / kRestricted).string();
    fs::copy_file("/bin/sleep", restricted);
    fs::permissions(restricted, fs::perms(0755));
  }

  Peer startLogind() {
    Peer logind{test::startProgram(VESK_HELPERS_DIR "/fake_logind",
                                   {"--user=" + currentUserShortName()}, true)};
    EXPECT_NE(logind.lineWith("ready"), "");
    return logind;
  }
  Peer startDaemon() {
    Peer daemon{test::startProgram(VESK_CENTER_TOOL, {"serve"})};
    EXPECT_TRUE(
        test::pollUntil([&] { return nameOwner(systemBus(), kDaemonCenterName).has_value(); }));
    return daemon;
  }
  static void stopDaemon(Peer& daemon) {
    daemon.process->terminate();
    daemon.process->waitUntilExit();
    test::pollUntil([] { return !nameOwner(systemBus(), kDaemonCenterName).has_value(); });
  }
  // The agent, verbose, once it monitors; `prefix` runs it (unshare, setpriv).
  Peer startAgent(std::vector<std::string> prefix = {}, std::vector<std::string> options = {},
                  bool monitoring = true) {
    prefix.push_back(VESK_AGENT_PATH);
    prefix.push_back("-verbose");
    prefix.insert(prefix.end(), options.begin(), options.end());
    Peer agent{test::startProgram(prefix.front(), {prefix.begin() + 1, prefix.end()})};
    if (monitoring) {
      EXPECT_NE(agent.lineWith("Monitoring for events..."), "") << agent.printed;
    }
    return agent;
  }
  // Says `name` as root, to every agent on the bus.
  static void notify(const std::string& name) {
    ASSERT_EQ(test::startProgram(VESK_CENTER_TOOL, {"notify", name})->waitUntilExit(), 0);
  }
  std::string pidFile() const {
    return test::readFile(root.path() / "Library/Application Support/VESK/bin" /
                          (currentUserShortName() + ".pid"));
  }
  std::string launchctlCalls() const { return test::readFile(root.path() / "launchctl.calls"); }
  // Starts the restricted program; true when the agent killed it and told the daemon.
  bool restrictedProgramIsKilled(Peer& daemon) {
    const pid_t pid = spawn({restricted, "30"});
    const std::string id = std::to_string(pid);
    return killedBy(pid) == SIGKILL &&
           daemon.lineWith("vesk.blacklistEvent").find("\"ProcessID\":" + id) !=
               std::string::npos &&
           daemon.names(1) == Names{"appLaunchingEvent " + id};
  }

  test::TemporaryFolder root;
  test::PrivateBus bus{false};
  std::string restricted;
};

// The unified control-group tree, where a desktop launch unit can be made for a test.
std::string unifiedControlGroups() {
  std::ifstream mounts("/proc/self/mounts");
  for (std::string device, where, type, rest;
       mounts >> device >> where >> type && std::getline(mounts, rest);)
    if (type == "cgroup2" && ::access(where.c_str(), W_OK) == 0) return where;
  return "";
}

TEST_F(AgentRun, RelaysTheSessionKillsWhatIsRestrictedAndGivesWayToANewerAgent) {
  Peer logind = startLogind();
  Peer daemon = startDaemon();
  Peer agent = startAgent({}, {"-allNotifications"});
  const std::string pid = std::to_string(agent.process->processIdentifier());
  EXPECT_EQ(daemon.names(2), (Names{"workspaceActivated", "agentStart " + pid}));
  EXPECT_EQ(pidFile(), pid);

  // Each event once, in order, also after the session was switched away and back.
  for (const char* command :
       {"locked true", "locked false", "sleep true", "sleep false", "active false", "active true",
        "locked true", "shutdown true", "state closing"})
    logind.process->writeInput(std::string(command) + "\n");
  EXPECT_EQ(daemon.names(9), (Names{"screenLockedEvent", "screenUnlockedEvent", "systemSleepEvent",
                                    "systemWakeEvent", "workspaceDeactivated", "workspaceActivated",
                                    "screenLockedEvent", "systemPowerOffEvent", "userLogOut"}));
  for (const char* name : {"com.apple.screensaver.didstart", "com.apple.screensaver.didstop",
                           "com.vesksoftware.vesk.survoEvent", "O3EngineChanged"})
    notify(name);
  EXPECT_EQ(daemon.names(3),
            (Names{"screensaverActivatedEvent", "screensaverDeactivatedEvent", "survoEvent"}));
  EXPECT_NE(agent.lineWith("Received notification (User: " + currentUserShortName() +
                           "): {name = com.vesksoftware.vesk.survoEvent}"),
            "");
  EXPECT_TRUE(restrictedProgramIsKilled(daemon));

  // An application: a program the desktop started in a launch unit of its own.
  if (const std::string groups = unifiedControlGroups(); !groups.empty()) {
    const fs::path unit = fs::path(groups) / ("app-gnome-vesk.viewer-" + pid + ".scope");
    fs::create_directory(unit);
    const pid_t viewer =
        spawn({"/bin/sh", "-c",
               "echo $$ >'" + (unit / "cgroup.procs").string() + "' && exec /bin/sleep 30"});
    const std::string id = std::to_string(viewer);
    EXPECT_THAT(daemon.lineWith("vesk.appLaunchingEvent"),
                testing::HasSubstr("\"NSApplicationName\":\"sleep\",\"NSApplicationPath\":\"/usr/"
                                   "bin/sleep\",\"NSApplicationProcessIdentifier\":" +
                                   id));
    ::kill(viewer, SIGTERM);
    killedBy(viewer);
    EXPECT_EQ(daemon.names(2), (Names{"appLaunchedEvent " + id, "appTerminatedEvent " + id}));
    fs::remove(unit);
  }
  EXPECT_THAT(agent.printed, testing::Not(testing::HasSubstr("O3EngineChanged")));

  Peer newer = startAgent();
  EXPECT_EQ(agent.process->waitUntilExit(), SIGKILL);
  EXPECT_EQ(pidFile(), std::to_string(newer.process->processIdentifier()));
  notify("com.vesksoftware.vesk.manage");
  EXPECT_EQ(newer.process->waitUntilExit(), 0);
  EXPECT_NE(newer.lineWith("Unloading self..."), "");
  EXPECT_EQ(launchctlCalls(), "remove com.vesksoftware.vesk.agent\n");
}

TEST_F(AgentRun, ReachesADaemonThatComesLateAndRegistersOnceWithEachOne) {
  Peer logind = startLogind();
  Peer agent = startAgent();
  EXPECT_NE(agent.lineWith("Unable to send notification [com.vesksoftware.vesk.agentStart] - "
                           "daemon not available."),
            "");
  const auto request = [](const std::string& marker) {
    test::startProgram(VESK_CENTER_TOOL,
                       {"post", "com.vesksoftware.vesk.veskAgentRequestEvent", "Marker=" + marker})
        ->waitUntilExit();
  };
  for (const std::string run : {"1", "2"}) {
    Peer daemon = startDaemon();
    logind.process->writeInput(run == "1" ? "locked true\n" : "locked false\n");
    EXPECT_EQ(daemon.names(1), Names{run == "1" ? "screenLockedEvent" : "screenUnlockedEvent"});
    // Requests reach the agent once it has registered with this daemon; then each reaches it
    // exactly once.
    ASSERT_TRUE(test::pollUntil([&] {
      request("probe" + run);
      return agent.process->readOutputFor(agent.printed, 100) &&
             agent.printed.find("Marker = probe" + run) != std::string::npos;
    }));
    request("once" + run);
    request("after" + run);
    ASSERT_NE(agent.lineWith("Marker = after" + run), "");
    const std::size_t once = agent.printed.find("Marker = once" + run);
    EXPECT_NE(once, std::string::npos);
    EXPECT_EQ(agent.printed.find("Marker = once" + run, once + 1), std::string::npos);
    stopDaemon(daemon);
  }
}

TEST_F(AgentRun, KeepsEnforcingWithoutLoginManagerOrProcessConnector) {
  if (test::startProgram("/usr/bin/unshare", {"-n", "/bin/true"})->waitUntilExit() != 0)
    GTEST_SKIP() << "cannot make a network namespace here";
  Peer daemon = startDaemon();
  // Without a network of its own the kernel's process connector refuses the agent.
  Peer agent = startAgent({"/usr/bin/unshare", "-n"});
  EXPECT_THAT(agent.printed, testing::HasSubstr("No login manager"));
  EXPECT_THAT(agent.printed, testing::HasSubstr("every 0.25 s instead"));
  EXPECT_TRUE(restrictedProgramIsKilled(daemon));
}

TEST_F(AgentRun, SurvivesAFloodOfLaunchesKillsEveryRestrictedOneAndUnloadsWhenTold) {
  Peer daemon = startDaemon();
  Peer agent = startAgent();
  const long before = test::residentKilobytes(agent.process->processIdentifier());
  std::vector<pid_t> restrictedOnes;
  for (int launch = 0; launch < 5000; ++launch)
    if (launch % 100 == 0)
      restrictedOnes.push_back(spawn({restricted, "30"}));
    else
      killedBy(spawn({"/bin/true"}));
  int killed = 0;
  for (const pid_t pid : restrictedOnes) killed += killedBy(pid) == SIGKILL ? 1 : 0;
  EXPECT_EQ(killed, 50);
  // Freed memory is kept in quarantine under the address sanitizer; elsewhere it is reused.
  if (!kSanitized) {
    EXPECT_LT(test::residentKilobytes(agent.process->processIdentifier()) - before, 8 * 1024);
  }
  notify("com.vesksoftware.vesk.stopDaemon");
  EXPECT_EQ(agent.process->waitUntilExit(), 0);
  EXPECT_EQ(launchctlCalls(), "unload /Library/LaunchAgents/com.vesksoftware.vesk.agent.plist\n");
}

TEST_F(AgentRun, AGuestOnTenNineLeavesTheRunningAgentAloneUnlikeLaterSystems) {
  if (::getpwnam("guest") == nullptr &&
      test::runProgram("/usr/sbin/useradd", {"-M", "guest"}, {}).status != 0)
    GTEST_SKIP() << "no user guest, and none can be made";
  if (const std::string why = test::whyNobodyCannotRun(VESK_AGENT_PATH); !why.empty())
    GTEST_SKIP() << why;
  const passwd* guest = ::getpwnam("guest");
  const std::vector<std::string> asGuest = {
      "/usr/bin/setpriv", "--reuid=" + std::to_string(guest->pw_uid),
      "--regid=" + std::to_string(guest->pw_gid), "--clear-groups", "--"};
  Peer daemon = startDaemon();
  std::vector<std::string> olderAgent = asGuest;
  olderAgent.insert(olderAgent.end(), {"/bin/sleep", "30"});
  const pid_t older = spawn(olderAgent);
  const std::string pidFile = "Library/Application Support/VESK/bin/guest.pid";
  root.write(pidFile, std::to_string(older));

  ::setenv("VESK_OS_VERSION", "10.9.5", 1);
  Peer tenNine = startAgent(asGuest, {}, false);
  EXPECT_EQ(tenNine.process->waitUntilExit(), 0);
  for (const char* line : {"Warning: VESK Agent is running without elevated user privileges",
                           "Warning: VESK Agent is running without elevated group privileges",
                           "veskAgent for guest account on 10.9 is already running...exiting"})
    EXPECT_NE(tenNine.lineWith(line), "");
  EXPECT_THAT(daemon.lineWith("vesk.selfHealAgent"), testing::HasSubstr("\"Username\":\"guest\""));
  EXPECT_EQ(test::readFile(root.path() / pidFile), std::to_string(older));

  ::setenv("VESK_OS_VERSION", "10.10", 1);
  Peer later = startAgent(asGuest);
  EXPECT_EQ(killedBy(older), SIGKILL);
  later.process->terminate();
  ::unsetenv("VESK_OS_VERSION");
}

}  // namespace
}  // namespace vesk
