// The agent at work, in a sandbox root on a private bus with vesk-center as the daemon:
//   - exec to kill: a restricted program spawned 1,000 times one after another, from the spawn
//     to the SIGKILL that waitpid reports (target p99 <= 2 ms), beside the same program's bare
//     spawn to exit under a name that is not restricted;
//   - the agent's resident memory idle after start-up (target <= 10 MB) and after 100,000
//     session events relayed to the daemon (target: no more than 1 MB more);
//   - the relay's rate: events per second from a workspace of fakes, through an agent in this
//     process, to vesk-center over the bus.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "Latencies.h"
#include "agent/LaunchAgentCommand.h"
#include "fakes/FakeUserSession.h"
#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"
#include "notifications/SystemBus.h"
#include "platform/ChildProcess.h"
#include "platform/SessionEvents.h"

extern char** environ;

namespace {

using vesk::bench::amount;
using vesk::bench::latencyResults;
using vesk::bench::report;
using vesk::bench::result;

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Microseconds from the spawn of `arguments` to its end; -1 unless it ended as `expected`
// says (the signal, or 0 for a plain exit).
double spawnToEnd(const std::vector<std::string>& arguments, int expected) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const auto start = Clock::now();
  pid_t pid = 0;
  if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  ::waitpid(pid, &status, 0);
  const double micros = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
  const int ended = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  return ended == expected ? micros : -1;
}

// vesk-center serve, counting the posts it prints.
class Daemon {
 public:
  Daemon() {
    process_ = vesk::ChildProcess::launch({VESK_CENTER_TOOL,
                                           {"serve"},
                                           std::nullopt,
                                           vesk::StdioMode::kPipe,
                                           vesk::StdioMode::kPipe,
                                           vesk::StdioMode::kInherit});
    process_->closeInput();
    reader_ = std::thread([this] {
      std::string printed;
      while (process_->readOutputFor(printed, 1000) || process_->isRunning()) {
        posts_ += std::count(printed.begin(), printed.end(), '\n');
        printed.erase(0, printed.rfind('\n') == std::string::npos ? 0 : printed.rfind('\n') + 1);
      }
    });
  }
  ~Daemon() {
    process_->terminate();
    reader_.join();
  }
  long posts() const { return posts_; }
  // Waits until `count` posts have been printed; false after 60 seconds without one.
  bool waitFor(long count) const {
    long last = posts_;
    auto quiet = Clock::now();
    while (posts_ < count) {
      std::this_thread::yield();
      if (posts_ != last) last = posts_, quiet = Clock::now();
      if (Clock::now() - quiet > std::chrono::seconds(60)) return false;
    }
    return true;
  }

 private:
  std::unique_ptr<vesk::ChildProcess> process_;
  std::thread reader_;
  std::atomic<long> posts_{0};
};

// An agent in this process whose session is made of fakes; it posts to the daemon for real.
class RelayAgent : public vesk::LaunchAgentCommand {
 public:
  vesk::test::FakeUserSession* session = nullptr;

 protected:
  std::unique_ptr<vesk::UserSession> makeUserSession() override {
    auto made = std::make_unique<vesk::test::FakeUserSession>();
    session = made.get();
    return made;
  }
};

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (::geteuid() != 0) std::puts("bench_agent: not root: the agent falls back to scanning");
  const vesk::test::TemporaryFolder root;
  vesk::test::useSandbox(root.path());
  ::chmod(root.path().c_str(), 0755);
  root.write("Library/Application Support/VESK/.blacklist.xml",
             "<?xml version=\"1.0\"?><ns2:list xmlns:ns2=\"urn:example\"><ns2:blacklisted>"
             "<ns2:id>1</ns2:id><ns2:process>vesk-bench-forbidden</ns2:process>"
             "<ns2:kill>true</ns2:kill></ns2:blacklisted></ns2:list>");
  const std::string restricted = (root.path() / "bin/vesk-bench-forbidden").string();
  const std::string allowed = (root.path() / "bin/vesk-bench-allowed").string();
  for (const std::string& copy : {restricted, allowed}) fs::copy_file("/bin/sleep", copy);

  const vesk::test::PrivateBus bus(false);
  Daemon daemon;
  // A login manager whose lock switch the agent relays; what it answers goes nowhere.
  int logindInput[2];
  if (::pipe(logindInput) != 0) return 1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, logindInput[0], 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclose(&actions, logindInput[1]);
  const std::string logindPath = VESK_HELPERS_DIR "/fake_logind";
  const std::string user = "--user=" + vesk::currentUserShortName();
  char* logindArguments[] = {const_cast<char*>(logindPath.c_str()), const_cast<char*>(user.c_str()),
                             nullptr};
  pid_t logind = 0;
  ::posix_spawn(&logind, logindPath.c_str(), &actions, nullptr, logindArguments, environ);
  ::close(logindInput[0]);
  FILE* toLogind = ::fdopen(logindInput[1], "w");

  auto agent = vesk::ChildProcess::launch({VESK_AGENT_PATH, {}, std::nullopt});
  // workspaceActivated and agentStart, once it monitors.
  if (!daemon.waitFor(2)) return std::puts("bench_agent: the agent did not start"), 1;
  const pid_t agentPid = agent->processIdentifier();
  const long idle = vesk::test::residentKilobytes(agentPid);

  std::vector<double> kills, bare;
  for (int i = 0; i < 1000; ++i) {
    const double killed = spawnToEnd({restricted, "30"}, SIGKILL);
    if (killed < 0) return std::puts("bench_agent: a restricted program was not killed"), 1;
    kills.push_back(killed);
    bare.push_back(spawnToEnd({allowed, "0"}, 0));
  }
  std::printf("bench_agent: the agent heard processes through %s\n",
              ::geteuid() == 0 ? "the process connector" : "a scan");
  report("spawn to SIGKILL, restricted (target p99 2 ms)", kills);
  report("spawn to exit, same program not restricted", bare);
  latencyResults("spawn to SIGKILL, restricted", kills, "<= 2000 us", "bare spawn to exit", bare);

  // 100,000 lock and unlock switches of the login manager, relayed by the agent; sent in
  // rounds so that no more wait for the daemon than the agent keeps.
  constexpr long kEvents = 100000, kRound = 500;
  long expected = daemon.posts() + 2 * 1000;  // the kills' blacklist and launching events
  daemon.waitFor(expected);
  expected = daemon.posts();
  const auto relayStart = Clock::now();
  for (long sent = 0; sent < kEvents; sent += kRound) {
    for (long i = 0; i < kRound; ++i)
      std::fprintf(toLogind, "locked %s\n", (sent + i) % 2 == 0 ? "true" : "false");
    std::fflush(toLogind);
    if (!daemon.waitFor(expected + sent + kRound))
      return std::puts("bench_agent: the daemon stopped hearing the agent"), 1;
  }
  const double relaySeconds = std::chrono::duration<double>(Clock::now() - relayStart).count();
  const long after = vesk::test::residentKilobytes(agentPid);
  std::printf("%-46s %8.0f events/s\n", "login manager -> agent -> vesk-center",
              kEvents / relaySeconds);
  std::printf(
      "%-46s %6ld kB idle (target 10240), %6ld kB after %ld events (%+ld kB, target "
      "+1024)\n",
      "agent resident memory", idle, after, kEvents, after - idle);
  result("relay, login manager -> agent -> vesk-center",
         amount(kEvents / relaySeconds, "events/s", 0), "none", "none");
  result("agent resident memory, idle", amount(idle, "kB", 0), "<= 10240 kB", "none");
  result("agent resident memory, growth over 100,000 events", amount(after - idle, "kB", 0),
         "<= 1024 kB", "idle " + amount(idle, "kB", 0));

  agent->terminate();
  agent->waitUntilExit();
  std::fclose(toLogind);
  ::kill(logind, SIGTERM);
  ::waitpid(logind, nullptr, 0);

  // The relay alone: a workspace of fakes posting straight into an agent of this process.
  const long earlier = daemon.posts();
  auto relay = vesk::VKCommand::create<RelayAgent>({"veskAgent"});
  relay->checkShouldBeActive();
  daemon.waitFor(earlier + 1);  // its workspaceActivated
  constexpr long kRelayed = 20000;
  const long before = daemon.posts();
  const vesk::Dictionary record = {{vesk::kApplicationPathKey, "/usr/bin/editor"},
                                   {vesk::kApplicationNameKey, "Editor"},
                                   {vesk::kApplicationProcessIdentifierKey, 4242LL}};
  const auto start = Clock::now();
  for (long sent = 0; sent < kRelayed; sent += kRound) {
    for (long i = 0; i < kRound; ++i)
      relay->session->workspace().postNotification(vesk::kDidLaunchApplication, record);
    vesk::VESKNotificationCenter::waitForPosts(60);
  }
  daemon.waitFor(before + kRelayed);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::printf("%-46s %8.0f events/s (%ld delivered)\n", "workspace fake -> agent -> vesk-center",
              kRelayed / seconds, daemon.posts() - before);
  result("relay, workspace fake -> agent -> vesk-center", amount(kRelayed / seconds, "events/s", 0),
         "none", "none");
  std::fflush(stdout);
  // The in-process agent's threads are still at work, so the process ends without unwinding;
  // the daemon, the bus and the sandbox would outlive it unless ended here. The bus goes on
  // purpose: losing it must not end the process with the agent's own status.
  vesk::exitWhenSystemBusLost(nullptr);
  daemon.~Daemon();
  bus.~PrivateBus();
  root.~TemporaryFolder();
  ::_exit(0);
}
