#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "fakes/FakeProcessTable.h"
#include "fakes/FakeSession.h"
#include "foundation/RunLoop.h"
#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"
#include "platform/ChildProcess.h"
#include "platform/DesktopApplications.h"
#include "platform/ProcessEvents.h"
#include "platform/SessionEvents.h"
#include "platform/Users.h"
#include "platform/Workspace.h"

extern char** environ;

namespace vesk {
namespace {

using test::FakeDesktopApplications;
using test::FakeFrontWindow;
using test::FakeProcessEvents;
using test::FakeProcessTable;
using test::ManualTimers;
using ::testing::ElementsAre;

// One process-connector message as the kernel sends it: netlink header, connector header,
// then the event (what, cpu, timestamp) and its fields.
std::vector<std::uint8_t> connectorMessage(std::uint32_t what, std::vector<std::int32_t> fields,
                                           std::uint32_t index = 1) {
  const std::uint16_t payload = static_cast<std::uint16_t>(16 + 4 * fields.size());
  const std::uint32_t length = 36u + payload;
  const std::uint16_t done = 3;
  const std::uint32_t value = 1;
  std::vector<std::uint8_t> bytes(length);
  std::memcpy(bytes.data(), &length, 4);
  std::memcpy(bytes.data() + 4, &done, 2);
  std::memcpy(bytes.data() + 16, &index, 4);
  std::memcpy(bytes.data() + 20, &value, 4);
  std::memcpy(bytes.data() + 32, &payload, 2);
  std::memcpy(bytes.data() + 36, &what, 4);
  std::memcpy(bytes.data() + 52, fields.data(), 4 * fields.size());
  return bytes;
}

TEST(ConnectorDecoder, ReadsExecExitAndAcknowledgementAndSkipsWhatIsBrokenOrForeign) {
  using Kind = ConnectorMessage::Kind;
  const auto exec = connectorMessage(0x2, {41, 40});
  const auto exit = connectorMessage(0x80000000, {42, 42, 9, 17, 1, 1});
  std::vector<std::uint8_t> two(exec);
  two.resize(exec.size() + exit.size());
  std::copy(exit.begin(), exit.end(), two.begin() + static_cast<long>(exec.size()));
  auto truncated = exit;
  truncated.resize(truncated.size() - 4);
  auto shortExit = connectorMessage(0x80000000, {42, 42});  // fields cut short by the sender
  auto overlong = exec;
  overlong[0] = 200;  // says it is longer than what was read
  struct Row {
    const char* what;
    std::vector<std::uint8_t> bytes;
    std::vector<std::tuple<Kind, pid_t, pid_t>> expected;
  } rows[] = {
      {"exec", exec, {{Kind::kExec, 41, 40}}},
      {"exec and exit in one datagram", two, {{Kind::kExec, 41, 40}, {Kind::kExit, 42, 42}}},
      {"fork", connectorMessage(0x1, {1, 1, 2, 2}), {{Kind::kOther, 0, 0}}},
      {"another connector", connectorMessage(0x2, {5, 5}, 7), {}},
      {"truncated", truncated, {}},
      {"exit without its fields", shortExit, {}},
      {"longer than read", overlong, {}},
      {"shorter than a header", std::vector<std::uint8_t>(10, 0xff), {}},
      {"empty", {}, {}},
      {"the subscription's answer", connectorMessage(0, {22}), {{Kind::kAcknowledgement, 0, 0}}},
  };
  for (const Row& row : rows) {
    std::vector<std::tuple<Kind, pid_t, pid_t>> got;
    for (const ConnectorMessage& message : decodeConnectorDatagram(row.bytes))
      got.emplace_back(message.kind, message.pid, message.tgid);
    EXPECT_EQ(got, row.expected) << row.what;
  }
}

TEST(ProcessReconciliation, ReportsEndsThenStartsAndAPidThatRunsAnotherProgram) {
  std::map<pid_t, std::string> known{{10, "/usr/bin/a"}, {11, "/usr/bin/b"}, {12, "/usr/bin/c"}};
  const auto events = reconcileProcesses(
      known, {{10, 0, "/usr/bin/a"}, {12, 0, "/usr/bin/other"}, {13, 0, "/usr/bin/d"}});
  std::vector<std::string> described;
  for (const ProcessEvent& event : events)
    described.push_back((event.kind == ProcessEvent::Kind::kExec ? "exec " : "exit ") +
                        std::to_string(event.pid) + " " + event.path);
  EXPECT_THAT(described, ElementsAre("exit 11 /usr/bin/b", "exit 12 /usr/bin/c",
                                     "exec 12 /usr/bin/other", "exec 13 /usr/bin/d"));
  EXPECT_EQ(known, (std::map<pid_t, std::string>{
                       {10, "/usr/bin/a"}, {12, "/usr/bin/other"}, {13, "/usr/bin/d"}}));
}

TEST(DesktopApplicationId, ComesOnlyFromADesktopLaunchUnitOnTheUnifiedLine) {
  const std::string user = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/";
  const struct {
    std::string cgroup;
    std::optional<std::string> id;
  } rows[] = {
      {user + "app-gnome-org.gnome.Terminal-4242.scope\n", "org.gnome.Terminal"},
      {user + "app-gnome-firefox\\x2desr-17.scope\n", "firefox-esr"},
      {user + "app-org.kde.konsole@0f3c9a.service\n", "org.kde.konsole"},
      {user + "app-kde-org.kde.dolphin-a1b2.scope\n", "org.kde.dolphin"},
      {user + "app-gedit-9.scope", "gedit"},
      {"12:pids:/\n" + user + "app-gnome-org.gnome.Calculator-3.scope\n1:name=systemd:/\n",
       "org.gnome.Calculator"},
      {"0::/user.slice/user-1000.slice/session-2.scope\n", std::nullopt},
      {user + "gnome-terminal-server.service\n", std::nullopt},
      {user + "app-gnome-org.gnome.Terminal-4242.slice\n", std::nullopt},
      {user + "app-.scope\n", std::nullopt},
      {"0::/\n", std::nullopt},
      {"1:name=systemd:/user.slice/app-gnome-gedit-9.scope\n", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& row : rows)
    EXPECT_EQ(desktopApplicationIdFromControlGroups(row.cgroup), row.id) << row.cgroup;
}

// The workspace over fakes: what it reports, in which order, to whom.
class WorkspaceTest : public ::testing::Test {
 protected:
  static constexpr uid_t kUser = 1000;
  void SetUp() override {
    desktop.names["org.gnome.Terminal"] = "Terminal";
    workspace.setExecHook([this](const ProcessEvent& event) {
      seen.push_back("hook " + std::to_string(event.pid) + " " + event.path);
    });
    const std::pair<const char*, const char*> names[] = {{kWillLaunchApplication, "will"},
                                                         {kDidLaunchApplication, "did"},
                                                         {kDidTerminateApplication, "end"},
                                                         {kDidActivateApplication, "front"}};
    for (const auto& [name, tag] : names)
      workspace.addObserver(name, [this, tag](const std::string&, const Dictionary& record) {
        seen.push_back(tag + (" " + record[kApplicationProcessIdentifierKey].stringValue()) + " " +
                       record[kApplicationNameKey].stringValue());
      });
  }
  // A process that the table lists, in the desktop launch unit of `app` when one is given.
  void running(pid_t pid, uid_t uid, const std::string& path, const std::string& app = "") {
    table.processes.push_back({pid, uid, path});
    table.cgroups[pid] = app.empty() ? "0::/user.slice/session-2.scope\n"
                                     : "0::/user.slice/app.slice/app-gnome-" + app + "-1.scope\n";
  }

  FakeProcessTable table;
  FakeProcessEvents processes;
  FakeDesktopApplications desktop;
  FakeFrontWindow front;
  ManualTimers timers;
  Workspace workspace{kUser, table, processes, desktop, front, timers};
  std::vector<std::string> seen;
};

TEST_F(WorkspaceTest, HandsEveryExecToTheHookButReportsOnlyTheUsersApplications) {
  running(50, kUser, "/usr/bin/nautilus", "org.gnome.Nautilus");
  running(51, kUser, "/usr/bin/bash");
  workspace.start();
  running(60, kUser, "/usr/libexec/terminal-server", "org.gnome.Terminal");
  running(61, 0, "/usr/sbin/cron", "cron");  // another user's
  processes.exec(60, kUser, "/usr/libexec/terminal-server");
  processes.exec(61, 0, "/usr/sbin/cron");
  for (const pid_t pid : {61, 60, 51}) processes.exit(pid);
  EXPECT_THAT(seen, ElementsAre("hook 60 /usr/libexec/terminal-server", "will 60 Terminal",
                                "did 60 Terminal", "hook 61 /usr/sbin/cron", "end 60 Terminal"));
  // Running before the start: listed, not reported, named after the executable without a
  // .desktop file.
  EXPECT_THAT(workspace.launchedApplications(),
              ElementsAre(Dictionary{{kApplicationPathKey, "/usr/bin/nautilus"},
                                     {kApplicationNameKey, "nautilus"},
                                     {kApplicationProcessIdentifierKey, 50LL}}));
}

TEST_F(WorkspaceTest, LooksAgainAtAProgramTheDesktopMovesIntoItsUnitAfterItsExec) {
  workspace.start();
  running(70, kUser, "/usr/libexec/terminal-server");
  running(71, kUser, "/usr/bin/sleep");
  running(72, kUser, "/usr/bin/gedit");
  for (const pid_t pid : {70, 71, 72}) processes.exec(pid, kUser, table.processes[pid - 70].path);
  table.cgroups[70] = "0::/app-gnome-org.gnome.Terminal-4.scope";
  table.cgroups[71] = "0::/app-gnome-sleep-4.scope";
  table.processes[1].path = "/usr/bin/other";  // 71 runs something else now: forgotten
  timers.fireAll();
  EXPECT_EQ(seen.back(), "did 70 Terminal");
  while (timers.fireAll() > 0) {
  }
  // Past its timed looks, 72 gets one more when it first comes to the front.
  table.cgroups[72] = "0::/app-gnome-org.gnome.gedit-4.scope";
  seen.clear();
  front.bringToFront(72);
  EXPECT_THAT(seen, ElementsAre("will 72 gedit", "did 72 gedit", "front 72 gedit"));
  front.bringToFront(std::nullopt);
  front.bringToFront(4242);  // not listed at all
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_TRUE(workspace.activeApplication().empty());
  front.bringToFront(70);
  EXPECT_EQ(workspace.activeApplication()[kApplicationNameKey].stringValue(), "Terminal");
}

TEST_F(WorkspaceTest, AnApplicationThatExecsAnotherProgramEndsAsWhatItWas) {
  workspace.start();
  running(80, kUser, "/usr/bin/wrapper", "firefox");
  processes.exec(80, kUser, "/usr/bin/wrapper");
  table.processes[0].path = "/usr/lib/firefox/firefox";
  processes.exec(80, kUser, "/usr/lib/firefox/firefox");
  EXPECT_THAT(seen, ElementsAre("hook 80 /usr/bin/wrapper", "will 80 wrapper", "did 80 wrapper",
                                "hook 80 /usr/lib/firefox/firefox", "end 80 wrapper",
                                "will 80 firefox", "did 80 firefox"));
}

TEST_F(WorkspaceTest, ObserversRemovedWhileANotificationIsDeliveredAreNotCalled) {
  std::vector<std::string> calls;
  Workspace::ObserverId second = 0;
  const auto note = [&](const char* what) {
    return [&calls, what](const std::string&, const Dictionary&) { calls.push_back(what); };
  };
  workspace.addObserver("n", [&](const std::string& name, const Dictionary& info) {
    note("first")(name, info);
    workspace.removeObserver(second);
    workspace.addObserver("n", note("added"));
  });
  second = workspace.addObserver("n", note("second"));
  workspace.postNotification("n", {});
  workspace.removeAllObservers();
  workspace.postNotification("n", {});
  EXPECT_THAT(calls, ElementsAre("first"));
}

// The kernel's process connector, heard for real (root only).
class ProcessConnectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the process connector needs root";
    source = makeSystemProcessEventSource(ProcessTable::system(),
                                          [this](const std::string& line) { logged += line; });
    if (source->mode() != "connector") GTEST_SKIP() << "no process connector here: " << logged;
  }
  static pid_t spawn(const char* path, const char* argument = nullptr,
                     const posix_spawn_file_actions_t* actions = nullptr) {
    char* arguments[] = {const_cast<char*>(path), const_cast<char*>(argument), nullptr};
    pid_t pid = 0;
    EXPECT_EQ(::posix_spawn(&pid, path, actions, nullptr, arguments, environ), 0);
    return pid;
  }
  std::unique_ptr<ProcessEventSource> source;
  std::string logged;
};

TEST_F(ProcessConnectorTest, ReportsTheExecAndExitOfEveryOneOfABurstOfTwoThousandPrograms) {
  // Each program waits for its input to end, so that its executable can still be read when
  // its exec is handled; a program that has already ended has none.
  const std::string catPath = std::filesystem::canonical("/bin/cat");
  std::map<pid_t, std::string> execs;
  std::set<pid_t> exits;
  source->start([&](const ProcessEvent& event) {
    if (event.kind == ProcessEvent::Kind::kExec) {
      execs[event.pid] = event.path;
      EXPECT_TRUE(event.pin != nullptr);
    } else {
      exits.insert(event.pid);
    }
  });
  int input[2];
  ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], 0);
  std::vector<pid_t> started;
  for (int i = 0; i < 2000; ++i) started.push_back(spawn("/bin/cat", nullptr, &actions));
  posix_spawn_file_actions_destroy(&actions);
  const auto allSeen = [&](auto& seen) {
    return std::all_of(started.begin(), started.end(),
                       [&](pid_t pid) { return seen.contains(pid); });
  };
  EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return allSeen(execs); }, 20))
      << "rescans " << source->rescans();
  ::close(input[1]);
  ::close(input[0]);
  for (const pid_t pid : started) ::waitpid(pid, nullptr, 0);
  EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return allSeen(exits); }, 20));
  for (const pid_t pid : started) ASSERT_EQ(execs[pid], catPath) << pid;
}

TEST_F(ProcessConnectorTest, ReadsTheTableAgainWhenTheKernelDropsEvents) {
  // A buffer of a few dozen events, and a loop that does not read it during a burst.
  source = makeSystemProcessEventSource(
      ProcessTable::system(), [this](const std::string& line) { logged += line; }, 4096);
  std::map<pid_t, std::string> execs;
  source->start([&](const ProcessEvent& event) {
    if (event.kind == ProcessEvent::Kind::kExec) execs[event.pid] = event.path;
  });
  for (int i = 0; i < 300; ++i) ::waitpid(spawn("/bin/true"), nullptr, 0);
  // Its exec was dropped with the rest: only a new look at the table can tell of it.
  const pid_t waiting = spawn("/bin/sleep", "30");
  EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return execs.contains(waiting); }, 10));
  EXPECT_EQ(execs[waiting], std::filesystem::canonical("/bin/sleep").string());
  EXPECT_GE(source->rescans(), 1u);
  EXPECT_NE(logged.find("Process events were lost (the receive buffer overflowed); the process "
                        "table was read again"),
            std::string::npos);
  ::kill(waiting, SIGKILL);
  ::waitpid(waiting, nullptr, 0);
}

TEST_F(ProcessConnectorTest, AKillThroughThePinNeverReachesTheProcessThatTookThePidLater) {
  std::map<pid_t, ProcessEvent> execs;
  source->start([&](const ProcessEvent& event) {
    if (event.kind == ProcessEvent::Kind::kExec) execs.insert_or_assign(event.pid, event);
  });
  const pid_t pid = spawn("/bin/true");
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return execs.contains(pid); }, 10));
  std::optional<ProcessEvent> first = execs.at(pid);
  execs.clear();
  ::waitpid(pid, nullptr, 0);
  ASSERT_FALSE(first->pin->alive());
  // Hand the pid to a new process: the kernel gives the next one ns_last_pid + 1.
  pid_t reused = -1;
  for (int attempt = 0; attempt < 20 && reused != pid; ++attempt) {
    if (reused > 0) ::kill(reused, SIGKILL), ::waitpid(reused, nullptr, 0);
    std::ofstream("/proc/sys/kernel/ns_last_pid") << pid - 1;
    reused = spawn("/bin/sleep", "30");
  }
  if (reused != pid) {
    ::kill(reused, SIGKILL), ::waitpid(reused, nullptr, 0);
    GTEST_SKIP() << "the pid could not be handed out again";
  }
  ProcessTable::system().sendKill(pid);
  int status = 0;
  EXPECT_EQ(::waitpid(reused, &status, WNOHANG), 0) << "the new process was killed";
  first.reset();  // the pin goes: a kill of the pid now reaches whoever has it
  ProcessTable::system().sendKill(pid);
  ASSERT_EQ(::waitpid(reused, &status, 0), reused);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

// The session tool over the real layer: with the kernel's connector, and in a network
// namespace of its own, where the connector cannot be reached and the table is scanned.
TEST(SessionTool, ShowsAProgramsLaunchAndExitWithOrWithoutTheConnector) {
  const std::string sleepPath = std::filesystem::canonical("/bin/sleep");
  for (const bool refused : {false, true}) {
    SCOPED_TRACE(refused ? "without the connector" : "with the connector");
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    auto tool = refused
                    ? test::startProgram("/usr/bin/unshare", {"-n", VESK_SESSION_TOOL, "--exec"})
                    : test::startProgram(VESK_SESSION_TOOL, {"--exec"});
    std::string output;
    ASSERT_TRUE(test::waitForOutput(*tool, output, "vesk-session: ready")) << output;
    if (refused && output.find("unshare:") != std::string::npos)
      GTEST_SKIP() << "no network namespace can be made here: " << output;
    EXPECT_NE(output.find(refused ? "ready (processes: scan)" : "ready (processes: connector)"),
              std::string::npos)
        << output;
    if (refused) {
      EXPECT_NE(
          output.find("vesk-session: Failed to subscribe to the process connector: Connection "
                      "refused; watching the process table every 0.25 s instead"),
          std::string::npos)
          << output;
    }
    // Long enough for a scan to see it.
    auto program = test::startProgram("/bin/sleep", {"0.6"});
    const std::string user = "root";
    const std::string pid = std::to_string(program->processIdentifier());
    EXPECT_TRUE(test::waitForOutput(*tool, output,
                                    "{\"event\":\"exec\",\"pid\":" + pid + ",\"path\":\"" +
                                        sleepPath + "\",\"app\":null,\"user\":\"" + user + "\"}"))
        << output;
    program->waitUntilExit();
    EXPECT_TRUE(test::waitForOutput(*tool, output,
                                    "{\"event\":\"exit\",\"pid\":" + pid + ",\"path\":\"" +
                                        sleepPath + "\",\"app\":null,\"user\":null}"))
        << output;
    // It may be blocked writing what other tests' programs did: read it to its end.
    tool->terminate();
    tool->readOutputToEnd();
    EXPECT_EQ(tool->waitUntilExit(), 0);
  }
}

TEST(SessionTool, ShowsTheLoginManagersSleepWakeLockAndUnlock) {
  test::PrivateBus bus(false);
  auto logind = test::startProgram(VESK_HELPERS_DIR "/fake_logind", {}, true);
  std::string said;
  ASSERT_TRUE(test::waitForOutput(*logind, said, "ready")) << said;
  auto tool = test::startProgram(VESK_SESSION_TOOL, {});
  std::string output;
  ASSERT_TRUE(test::waitForOutput(*tool, output, "vesk-session: ready")) << output;
  EXPECT_NE(output.find("login manager: yes"), std::string::npos) << output;
  const std::string user = userNameForUid(::geteuid());
  const struct {
    const char* command;
    const char* event;
  } rows[] = {{"sleep true", kWillSleep},
              {"sleep false", kDidWake},
              {"locked true", kScreenIsLocked},
              {"locked false", kScreenIsUnlocked}};
  for (const auto& row : rows) {
    said.clear();
    logind->writeInput(std::string(row.command) + "\n");
    ASSERT_TRUE(test::waitForOutput(*logind, said, "ok")) << said;
    EXPECT_TRUE(test::waitForOutput(*tool, output,
                                    "{\"event\":\"" + std::string(row.event) +
                                        "\",\"pid\":null,\"path\":null,\"app\":null,\"user\":\"" +
                                        user + "\"}"))
        << output;
  }
  tool->terminate();
  tool->readOutputToEnd();
  EXPECT_EQ(tool->waitUntilExit(), 0);
}

}  // namespace
}  // namespace vesk
