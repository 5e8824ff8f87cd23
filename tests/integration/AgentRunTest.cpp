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
#include <sstream>
#include <string>
#include <thread>
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
  // The user guest, made when missing; null, with the reason, when the agent cannot run as it.
  static const passwd* guestUser(std::string* why) {
    if (::getpwnam("guest") == nullptr &&
        test::runProgram("/usr/sbin/useradd", {"-M", "guest"}, {}).status != 0)
      *why = "no user guest, and none can be made";
    else
      *why = test::whyNobodyCannotRun(VESK_AGENT_PATH);
    return why->empty() ? ::getpwnam("guest") : nullptr;
  }
  // The prefix that runs a program as `user`.
  static std::vector<std::string> runAs(const passwd& user) {
    return {"/usr/bin/setpriv", "--reuid=" + std::to_string(user.pw_uid),
            "--regid=" + std::to_string(user.pw_gid), "--clear-groups", "--"};
  }
  // Says `name` as root, to every agent on the bus.
  static void notify(const std::string& name) {
    ASSERT_EQ(test::startProgram(VESK_CENTER_TOOL, {"notify", name})->waitUntilExit(), 0);
  }
  // Waits until the daemon has an agent's observer for requests: an agent registers while it
  // goes on starting.
  void waitForObserver() const {
    EXPECT_TRUE(test::pollUntil([&] {
      return test::readFile(root.path() / "private/var/log/vesk.log")
                 .find("registered for com.vesksoftware.vesk.veskAgentRequestEvent") !=
             std::string::npos;
    }));
  }
  // Asks the agents, through the daemon, with the user information "key=value" `pairs`.
  static void request(std::vector<std::string> pairs) {
    pairs.insert(pairs.begin(), {"post", "com.vesksoftware.vesk.veskAgentRequestEvent"});
    ASSERT_EQ(test::startProgram(VESK_CENTER_TOOL, pairs)->waitUntilExit(), 0);
  }
  // The next answer the daemon printed: its "ResponseType", then the values of `keys` as JSON
  // ("-" for a key it lacks), blank-separated.
  static std::string answer(Peer& daemon, const std::vector<std::string>& keys = {}) {
    const std::string line = daemon.lineWith("\"com.vesksoftware.vesk.veskAgentResponseEvent\"");
    std::string found = jsonValue(line, "ResponseType");
    for (const std::string& key : keys) found += " " + jsonValue(line, key);
    return found;
  }
  // A value of the line's JSON: a string's text, an object with flat members, or a number.
  static std::string jsonValue(const std::string& line, const std::string& key) {
    const std::size_t at = line.find("\"" + key + "\":");
    if (at == std::string::npos) return "-";
    std::size_t from = at + key.size() + 3, end = from + 1;
    if (line[from] == '{') return line.substr(from, line.find("}}", from) + 2 - from);
    if (line[from] != '"') return line.substr(from, line.find_first_of(",}", from) - from);
    while (line[end] != '"') end += line[end] == '\\' ? 2 : 1;
    return line.substr(from + 1, end - from - 1);
  }
  // The management tool's calls so far, one "PID ARGUMENTS" line each, and when each came.
  std::vector<std::string> toolCalls(std::vector<double>* times = nullptr) const {
    std::vector<std::string> calls;
    std::istringstream lines(test::readFile(root.path() / "vesk.calls"));
    for (std::string line; std::getline(lines, line);) {
      if (times != nullptr) times->push_back(std::stod(line));
      calls.push_back(line.substr(line.find(' ') + 1));
    }
    return calls;
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

// The session's events, the kill and an application's launch are followed whole by the
// end-to-end session test; here what only the agent's own output shows.
TEST_F(AgentRun, LogsEveryNotificationButOneAndGivesWayToANewerAgent) {
  Peer logind = startLogind();
  Peer daemon = startDaemon();
  Peer agent = startAgent({}, {"-allNotifications"});
  const std::string pid = std::to_string(agent.process->processIdentifier());
  EXPECT_EQ(daemon.names(2), (Names{"workspaceActivated", "agentStart " + pid}));
  EXPECT_EQ(pidFile(), pid);
  for (const char* name : {"O3EngineChanged", "com.vesksoftware.vesk.survoEvent"}) notify(name);
  EXPECT_EQ(daemon.names(1), Names{"survoEvent"});
  EXPECT_NE(agent.lineWith("Received notification (User: " + currentUserShortName() +
                           "): {name = com.vesksoftware.vesk.survoEvent}"),
            "");
  EXPECT_THAT(agent.printed, testing::Not(testing::HasSubstr("O3EngineChanged")));

  Peer newer = startAgent();
  EXPECT_EQ(agent.process->waitUntilExit(), SIGKILL);
  EXPECT_EQ(pidFile(), std::to_string(newer.process->processIdentifier()));
  notify("com.vesksoftware.vesk.manage");
  EXPECT_EQ(newer.process->waitUntilExit(), 0);
  EXPECT_NE(newer.lineWith("Unloading self..."), "");
  EXPECT_EQ(launchctlCalls(), "remove com.vesksoftware.vesk.agent\n");
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
  std::string why;
  const passwd* guest = guestUser(&why);
  if (guest == nullptr) GTEST_SKIP() << why;
  const std::vector<std::string> asGuest = runAs(*guest);
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

TEST_F(AgentRun, RunsPoliciesForDexloStreamingTheirProgressAndStopsOneWhenTold) {
  Peer logind = startLogind();
  Peer daemon = startDaemon();
  Peer agent = startAgent();
  waitForObserver();

  request({"EntityType=policy", "RequestType=TriggerPolicy", "EntityId=256", "LocalUsername="});
  EXPECT_EQ(answer(daemon, {"EntityId"}), "MessageReceived 256");
  const std::string started = answer(daemon, {"EntityId", "ProcessId"});
  for (const char* piece :
       {"Executing Policy 256", "Running step 1 of 2", "Running step 2 of 2", "Policy 256 done"})
    EXPECT_EQ(answer(daemon, {"Data"}), std::string("OutputData ") + piece + "\\n");
  EXPECT_EQ(answer(daemon, {"EntityId", "Username"}), "Finished 256 " + currentUserShortName());
  const std::vector<std::string> calls = toolCalls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(started, "Started 256 " + calls[0].substr(0, calls[0].find(' ')));
  EXPECT_EQ(calls[0].substr(calls[0].find(' ') + 1),
            "policy -id 256 -showSteps -username  -dexloOnly -forceNoSurvo");

  // A policy that fails; a request without an id runs policy 0.
  request({"EntityType=policy", "RequestType=TriggerPolicy", "EntityId=7"});
  EXPECT_EQ(answer(daemon), "MessageReceived");
  EXPECT_EQ(answer(daemon), "Started");
  for (int piece = 0; piece < 4; ++piece) EXPECT_EQ(answer(daemon), "OutputData");
  EXPECT_EQ(answer(daemon, {"Error"}),
            "PolicyError {\"domain\":\"com.vesksoftware.task.errors\",\"code\":7,\"userInfo\":{}}");

  // A second start waits for the running policy, whose later answers carry the second
  // request's keys; a kill stops the running one, which ends finished, not failed, and its
  // process is gone; then the second runs (263 exits with 7).
  request({"EntityType=policy", "RequestType=TriggerPolicy"});
  EXPECT_EQ(answer(daemon, {"EntityId"}), "MessageReceived -");
  const std::string running = answer(daemon, {"ProcessId"});
  EXPECT_EQ(answer(daemon, {"Data"}), "OutputData Executing Policy 0\\n");
  request({"EntityType=policy", "RequestType=TriggerPolicy", "EntityId=263"});
  std::string next;
  while ((next = answer(daemon, {"EntityId"})) == "OutputData -") continue;
  EXPECT_EQ(next, "MessageReceived 263");
  request({"EntityType=policy", "RequestType=Kill"});
  while ((next = answer(daemon, {"EntityId"})) == "OutputData 263") continue;
  EXPECT_EQ(next, "Finished 263");
  const pid_t tool = std::stoi(running.substr(running.find(' ') + 1));
  EXPECT_NE(::kill(tool, 0), 0);
  EXPECT_NE(agent.lineWith("Killing a policy"), "");
  EXPECT_EQ(answer(daemon, {"EntityId"}), "Started 263");
  EXPECT_EQ(answer(daemon, {"Data"}), "OutputData Executing Policy 263\\n");
  while ((next = answer(daemon)) == "OutputData") continue;
  EXPECT_EQ(next, "PolicyError");

  // User level MDM, and the inventory, on threads of their own.
  request({"EntityType=configprofile", "RequestType=EnableUserLevelMdm", "Marker=mdm"});
  EXPECT_EQ(answer(daemon, {"Marker"}), "Finished mdm");
  request({"EntityType=general", "RequestType=Survo", "Marker=survo"});
  EXPECT_EQ(answer(daemon, {"Marker"}), "Finished survo");
  EXPECT_THAT(toolCalls(), testing::ElementsAre(testing::_, testing::_, testing::_, testing::_,
                                                testing::EndsWith(" mdm -userLevelMdm"),
                                                testing::EndsWith(" survo")));
}

TEST_F(AgentRun, AnswersOnlyRequestsForItsUserAndReportsAFailedEnrollment) {
  std::string why;
  const passwd* guest = guestUser(&why);
  if (guest == nullptr) GTEST_SKIP() << why;
  // The agent serves requests while its user has the screen.
  ASSERT_EQ(::chown((root.path() / "dev/console").c_str(), guest->pw_uid, guest->pw_gid), 0);
  Peer daemon = startDaemon();
  ::setenv("VESK_SANDBOX_MDM", "fail", 1);
  Peer agent = startAgent(runAs(*guest));
  ::unsetenv("VESK_SANDBOX_MDM");
  waitForObserver();

  request({"EntityType=general", "RequestType=Survo", "LocalUsername=someone-else"});
  request({"EntityType=policy", "RequestType=TriggerPolicy", "LocalUsername=someone-else"});
  request({"EntityType=configprofile", "RequestType=EnableUserLevelMdm", "LocalUsername=guest"});
  EXPECT_EQ(answer(daemon, {"LocalUsername", "ErrorMsg", "Error"}),
            "Error guest Enrollment failed: the server refused this computer "
            "{\"domain\":\"com.vesksoftware.core.errors\",\"code\":1,\"userInfo\":{"
            "\"NSLocalizedDescription\":\"User level MDM enrollment failed\"}}");
  request({"EntityType=general", "RequestType=Survo"});
  EXPECT_EQ(answer(daemon, {"LocalUsername"}), "Finished -");
  agent.process->terminate();
}

TEST_F(AgentRun, RefreshesTheBadgeTwoSecondsAfterEachNotificationOneAtATimeAndShowsMessages) {
  Peer daemon = startDaemon();
  Peer agent = startAgent();
  waitForObserver();
  const auto now = [] {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const double first = now();
  notify("com.vesksoftware.vesk.updateBadgeQuantity");
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the second comes a second later
  const double second = now();
  notify("com.vesksoftware.vesk.updateBadgeQuantity");
  const std::string message = "Say \"yes\"\nor 'no'";
  request({"EntityType=general", "RequestType=DisplayMessage", "Message=" + message});

  std::vector<double> times;
  ASSERT_TRUE(test::pollUntil([&] { return toolCalls().size() == 4; }, 20));
  const std::vector<std::string> calls = toolCalls(&times);
  for (std::size_t call = 0; call < 4; ++call)
    EXPECT_THAT(calls[call], testing::EndsWith(call % 2 == 0 ? " notify" : " notify done"));
  EXPECT_GE(times[0] - first, 1.9);
  EXPECT_GE(times[2] - second, 1.9);
  EXPECT_GE(times[2], times[1]);  // never two at once

  ASSERT_TRUE(test::pollUntil([&] { return fs::exists(root.path() / "veskHelper.calls"); }));
  const std::string helper =
      (root.path() / "Library/Application Support/VESK/bin/veskHelper.app").string();
  std::string shown = test::readFile(root.path() / "veskHelper.calls");
  std::vector<std::string> arguments;
  for (std::size_t at = 0; at < shown.size() && shown[at] != '\0'; at = shown.find('\0', at) + 1)
    arguments.push_back(shown.substr(at, shown.find('\0', at) - at));
  EXPECT_EQ(arguments, (std::vector<std::string>{
                           helper + "/Contents/MacOS/veskHelper", "-windowType", "utility", "-icon",
                           helper + "/Contents/Resources/Message.png", "-description", message,
                           "-button1", "OK", "-defaultButton", "1"}));
  EXPECT_NE(agent.lineWith("Displaying a message for this user"), "");
}

TEST_F(AgentRun, ShrugsOffAHundredMalformedRequestsInASecond) {
  Peer daemon = startDaemon();
  Peer agent = startAgent();
  waitForObserver();
  const std::vector<std::vector<std::string>> malformed = {
      {"EntityType=policy", "RequestType=Explode"},
      {"EntityType=policy", "RequestType=Kill", "LocalUsername=true"},
      {"EntityType=configprofile", "RequestType=7"},
      {"EntityType=general", "RequestType=DisplayMessage", "Message=false"},
      {"RequestType=TriggerPolicy"}};
  for (int sent = 0; sent < 100; ++sent) request(malformed[sent % 5]);
  request({"EntityType=general", "RequestType=Survo", "Marker=still-here"});
  EXPECT_EQ(answer(daemon, {"Marker"}), "Finished still-here");
  const std::string log = test::readFile(root.path() / "private/var/log/vesk.log");
  for (const char* line :
       {"Policy request type of  \"Explode\"", "Request for a user that is not a name ignored",
        "Config profile request type of \"7\"", "General request type of \"DisplayMessage\"",
        "Request entity type of  unhandled"}) {
    std::size_t count = 0;
    for (std::size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1))
      ++count;
    EXPECT_EQ(count, 20u) << line;
  }
}

}  // namespace
}  // namespace vesk
