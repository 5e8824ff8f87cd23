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
constexpr const char* kRestricted = "vesk-forbidden-game";

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
  // What the daemon printed for the next post of `name` (short name).
  std::string post(const std::string& name) {
    return lineWith("{\"name\":\"com.vesksoftware.vesk." + name + "\"");
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

long residentKilobytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  return -1;
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
                   std::string(kRestricted) +
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
  Peer startAgent(std::vector<std::string> prefix = {}) {
    prefix.push_back(VESK_AGENT_PATH);
    prefix.push_back("-verbose");
    Peer agent{test::startProgram(prefix.front(), {prefix.begin() + 1, prefix.end()})};
    EXPECT_NE(agent.lineWith("Monitoring for events..."), "") << agent.printed;
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
    const std::string id = "\"ProcessID\":" + std::to_string(pid);
    return killedBy(pid) == SIGKILL &&
           daemon.post("blacklistEvent").find(id) != std::string::npos &&
           daemon.post("appLaunchingEvent").find(std::to_string(pid)) != std::string::npos;
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

TEST_F(AgentRun, RelaysTheSessionKillsWhatIsRestrictedAndUnloadsWhenTold) {
  Peer logind = startLogind();
  Peer daemon = startDaemon();
  Peer agent = startAgent();
  const std::string pid = std::to_string(agent.process->processIdentifier());
  EXPECT_NE(daemon.post("workspaceActivated"), "");
  EXPECT_THAT(daemon.post("agentStart"), testing::HasSubstr("\"pid\":\"" + pid + "\""));
  EXPECT_EQ(pidFile(), pid);

  const std::pair<const char*, const char*> steps[] = {
      {"locked true", "screenLockedEvent"},     {"locked false", "screenUnlockedEvent"},
      {"sleep true", "systemSleepEvent"},       {"sleep false", "systemWakeEvent"},
      {"active false", "workspaceDeactivated"}, {"active true", "workspaceActivated"},
      {"shutdown true", "systemPowerOffEvent"}, {"state closing", "userLogOut"}};
  for (const auto& [command, event] : steps) {
    logind.process->writeInput(std::string(command) + "\n");
    EXPECT_THAT(daemon.post(event),
                testing::HasSubstr("\"Username\":\"" + currentUserShortName() + "\""))
        << command;
  }
  EXPECT_TRUE(restrictedProgramIsKilled(daemon));

  // An application: a program the desktop started in a launch unit of its own.
  if (const std::string groups = unifiedControlGroups(); !groups.empty()) {
    const fs::path unit = fs::path(groups) / ("app-gnome-vesk.viewer-" + pid + ".scope");
    fs::create_directory(unit);
    const pid_t viewer =
        spawn({"/bin/sh", "-c",
               "echo $$ >'" + (unit / "cgroup.procs").string() + "' && exec /bin/sleep 30"});
    const std::string record =
        "\"NSApplicationName\":\"sleep\",\"NSApplicationPath\":\"/usr/bin/sleep\","
        "\"NSApplicationProcessIdentifier\":" +
        std::to_string(viewer);
    EXPECT_THAT(daemon.post("appLaunchingEvent"), testing::HasSubstr(record));
    EXPECT_THAT(daemon.post("appLaunchedEvent"), testing::HasSubstr(record));
    ::kill(viewer, SIGTERM);
    killedBy(viewer);
    EXPECT_THAT(daemon.post("appTerminatedEvent"), testing::HasSubstr(record));
    fs::remove(unit);
  }

  notify("com.vesksoftware.vesk.stopDaemon");
  EXPECT_EQ(agent.process->waitUntilExit(), 0);
  EXPECT_THAT(agent.printed + agent.process->readOutputToEnd(),
              testing::HasSubstr("Unloading self..."));
  EXPECT_EQ(launchctlCalls(), "unload /Library/LaunchAgents/com.vesksoftware.vesk.agent.plist\n");
}

TEST_F(AgentRun, ANewAgentOfTheUserReplacesTheOldOneAndRemovesItselfWhenTold) {
  Peer logind = startLogind();
  Peer daemon = startDaemon();
  Peer first = startAgent();
  Peer second = startAgent();
  EXPECT_EQ(first.process->waitUntilExit(), SIGKILL);
  EXPECT_EQ(pidFile(), std::to_string(second.process->processIdentifier()));
  notify("com.vesksoftware.vesk.manage");
  EXPECT_EQ(second.process->waitUntilExit(), 0);
  EXPECT_EQ(launchctlCalls(), "remove com.vesksoftware.vesk.agent\n");
}

TEST_F(AgentRun, ReachesADaemonThatComesLateAndRegistersOnceWithEachOne) {
  Peer logind = startLogind();
  Peer agent = startAgent();
  // Told to nobody, and said so.
  EXPECT_NE(agent.lineWith("Unable to send notification [com.vesksoftware.vesk.agentStart] - "
                           "daemon not available."),
            "");
  for (int daemonRun = 0; daemonRun < 2; ++daemonRun) {
    Peer daemon = startDaemon();
    logind.process->writeInput("locked true\n");
    EXPECT_NE(daemon.post("screenLockedEvent"), "") << agent.printed;
    logind.process->writeInput("locked false\n");
    // Requests reach the agent once it has registered with this daemon; then each reaches it
    // exactly once.
    const auto request = [](const std::string& marker) {
      test::startProgram(VESK_CENTER_TOOL, {"post", "com.vesksoftware.vesk.veskAgentRequestEvent",
                                            "Marker=" + marker})
          ->waitUntilExit();
    };
    const std::string probe = "Marker = probe" + std::to_string(daemonRun);
    ASSERT_TRUE(test::pollUntil([&] {
      request("probe" + std::to_string(daemonRun));
      agent.process->readOutputFor(agent.printed, 100);
      return agent.printed.find(probe, agent.from) != std::string::npos;
    }));
    const std::string once = "Marker = once" + std::to_string(daemonRun);
    request("once" + std::to_string(daemonRun));
    request("after");
    ASSERT_NE(agent.lineWith("Marker = after"), "");
    const std::size_t first = agent.printed.find(once);
    EXPECT_NE(first, std::string::npos);
    EXPECT_EQ(agent.printed.find(once, first + 1), std::string::npos) << agent.printed;
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
  EXPECT_TRUE(agent.process->isRunning());
}

TEST_F(AgentRun, SurvivesAFloodOfLaunchesAndKillsEveryRestrictedOne) {
  Peer logind = startLogind();
  Peer daemon = startDaemon();
  Peer agent = startAgent();
  const pid_t agentPid = agent.process->processIdentifier();
  const long before = residentKilobytes(agentPid);
  std::vector<pid_t> restrictedOnes;
  for (int launch = 0; launch < 5000; ++launch) {
    if (launch % 100 == 0) {
      restrictedOnes.push_back(spawn({restricted, "30"}));
    } else {
      killedBy(spawn({"/bin/true"}));
    }
  }
  int killed = 0;
  for (const pid_t pid : restrictedOnes) killed += killedBy(pid) == SIGKILL ? 1 : 0;
  EXPECT_EQ(killed, 50);
  ASSERT_TRUE(agent.process->isRunning());
#if !defined(__SANITIZE_ADDRESS__)
  // Freed memory is kept in quarantine under the address sanitizer; elsewhere it is reused.
  EXPECT_LT(residentKilobytes(agentPid) - before, 8 * 1024);
#endif
}

TEST_F(AgentRun, AGuestOnTenNineLeavesTheRunningAgentAloneUnlikeLaterSystems) {
  if (::getpwnam("guest") == nullptr &&
      test::runProgram("/usr/sbin/useradd", {"-M", "-s", "/usr/sbin/nologin", "guest"}, {})
              .status != 0)
    GTEST_SKIP() << "no user guest, and none can be made";
  const passwd* guest = ::getpwnam("guest");
  ASSERT_NE(guest, nullptr);
  const std::string ids = std::to_string(guest->pw_uid), group = std::to_string(guest->pw_gid);
  const std::vector<std::string> asGuest = {"/usr/bin/setpriv", "--reuid=" + ids,
                                            "--regid=" + group, "--clear-groups", "--"};
  if (const std::string why = test::whyNobodyCannotRun(VESK_AGENT_PATH); !why.empty())
    GTEST_SKIP() << why;
  Peer daemon = startDaemon();
  std::vector<std::string> runningAgent = asGuest;
  runningAgent.insert(runningAgent.end(), {"/bin/sleep", "30"});
  const pid_t older = spawn(runningAgent);
  const fs::path pidPath =
      root.write("Library/Application Support/VESK/bin/guest.pid", std::to_string(older));

  ::setenv("VESK_OS_VERSION", "10.9.5", 1);
  std::vector<std::string> agentCommand = asGuest;
  agentCommand.insert(agentCommand.end(), {VESK_AGENT_PATH, "-verbose"});
  const test::ProgramResult tenNine =
      test::runProgram(agentCommand.front(), {agentCommand.begin() + 1, agentCommand.end()},
                       test::environmentWithout({}), true);
  EXPECT_EQ(tenNine.status, 0);
  EXPECT_THAT(
      tenNine.output,
      testing::HasSubstr("Warning: VESK Agent is running without elevated user privileges"));
  EXPECT_THAT(
      tenNine.output,
      testing::HasSubstr("Warning: VESK Agent is running without elevated group privileges"));
  EXPECT_THAT(
      tenNine.output,
      testing::HasSubstr("veskAgent for guest account on 10.9 is already running...exiting"));
  EXPECT_THAT(daemon.post("selfHealAgent"), testing::HasSubstr("\"Username\":\"guest\""));
  EXPECT_EQ(test::readFile(pidPath), std::to_string(older));
  EXPECT_EQ(::kill(older, 0), 0);

  ::setenv("VESK_OS_VERSION", "10.10", 1);
  Peer later = startAgent(asGuest);
  EXPECT_EQ(killedBy(older), SIGKILL);
  later.process->terminate();
  ::unsetenv("VESK_OS_VERSION");
}

}  // namespace
}  // namespace vesk
