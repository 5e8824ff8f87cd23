// How fast the session layer hears of programs: from the spawn of a program to its exec event
// handled on the run loop, 1,000 times one after another (p50, p99, max; target p99 <= 1 ms),
// beside the bare spawn; then a burst of 5,000 launches as fast as two cores allow: events
// delivered and lost, rescans, and the resident memory before and after.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Latencies.h"
#include "foundation/RunLoop.h"
#include "platform/ProcessEvents.h"

extern char** environ;

namespace {

using vesk::bench::amount;
using vesk::bench::latencyResults;
using vesk::bench::report;
using vesk::bench::result;

using Clock = std::chrono::steady_clock;

long residentKilobytes() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

pid_t spawnTrue() {
  pid_t pid = 0;
  char* arguments[] = {const_cast<char*>("/bin/true"), nullptr};
  return ::posix_spawn(&pid, "/bin/true", nullptr, nullptr, arguments, environ) == 0 ? pid : -1;
}

}  // namespace

int main() {
  vesk::RunLoop& loop = vesk::RunLoop::current();
  std::string logged;
  const long before = residentKilobytes();
  auto source = vesk::makeSystemProcessEventSource(
      vesk::ProcessTable::system(), [&](const std::string& line) { logged += line + "\n"; });
  std::printf("bench_session: processes heard through the %s\n", source->mode().c_str());
  if (source->mode() != "connector") std::printf("%s", logged.c_str());

  pid_t awaited = -1;
  Clock::time_point heard;
  std::set<pid_t> heardInBurst;
  bool bursting = false;
  source->start([&](const vesk::ProcessEvent& event) {
    if (event.kind != vesk::ProcessEvent::Kind::kExec) return;
    if (event.pid == awaited) heard = Clock::now();
    if (bursting) heardInBurst.insert(event.pid);
  });

  std::vector<double> toEvent, spawnOnly, afterSpawn;
  for (int i = 0; i < 1000; ++i) {
    heard = {};
    const Clock::time_point start = Clock::now();
    awaited = spawnTrue();
    const Clock::time_point spawned = Clock::now();
    loop.runUntilCondition([&] { return heard != Clock::time_point{}; }, 1);
    ::waitpid(awaited, nullptr, 0);
    if (heard == Clock::time_point{}) {
      std::printf("exec of pid %d not heard within a second\n", awaited);
      continue;
    }
    toEvent.push_back(std::chrono::duration<double, std::micro>(heard - start).count());
    afterSpawn.push_back(std::chrono::duration<double, std::micro>(heard - spawned).count());
    spawnOnly.push_back(std::chrono::duration<double, std::micro>(spawned - start).count());
  }
  report("spawn to exec event on the run loop", toEvent);
  report("  of which posix_spawn itself", spawnOnly);
  report("  spawn returned to exec event", afterSpawn);
  latencyResults("spawn to exec event on the run loop", toEvent, "<= 1000 us", "posix_spawn itself",
                 spawnOnly);
  latencyResults("spawn returned to exec event", afterSpawn, "none", "", {});

  // The burst: a thread spawns and reaps as fast as it can while this one handles the events.
  const long beforeBurst = residentKilobytes();
  constexpr int kBurst = 5000;
  std::vector<pid_t> pids(kBurst);
  bursting = true;
  const Clock::time_point burstStart = Clock::now();
  std::atomic<int> spawned{0};
  std::thread spawner([&] {
    for (int i = 0; i < kBurst; ++i) {
      pids[i] = spawnTrue();
      ++spawned;
    }
  });
  const auto heardAll = [&] {
    if (spawned < kBurst) return false;
    return std::all_of(pids.begin(), pids.end(),
                       [&](pid_t pid) { return heardInBurst.contains(pid); });
  };
  while (!heardAll() && Clock::now() - burstStart < std::chrono::seconds(30)) loop.runUntil(0.01);
  spawner.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - burstStart).count();
  for (const pid_t pid : pids) ::waitpid(pid, nullptr, 0);
  loop.runUntil(0.2);
  const auto delivered = std::count_if(pids.begin(), pids.end(),
                                       [&](pid_t pid) { return heardInBurst.contains(pid); });
  std::printf("burst of %d launches in %.2f s: %ld exec events delivered, %ld lost, %llu rescans\n",
              kBurst, seconds, static_cast<long>(delivered), static_cast<long>(kBurst - delivered),
              static_cast<unsigned long long>(source->rescans()));
  const long afterBurst = residentKilobytes();
  std::printf("resident memory: %ld kB at start, %ld kB before the burst, %ld kB after\n", before,
              beforeBurst, afterBurst);
  const std::string burst = "burst of " + std::to_string(kBurst) + " launches: ";
  result(burst + "time until every exec is heard", amount(seconds, "s", 2), "none", "none");
  result(burst + "exec events lost", amount(kBurst - delivered, "events", 0), "none", "none");
  result(burst + "rescans", std::to_string(source->rescans()), "none", "none");
  result(
      burst + "resident memory growth", amount(afterBurst - beforeBurst, "kB", 0), "none",
      "before the burst " + amount(beforeBurst, "kB", 0) + ", at start " + amount(before, "kB", 0));
  return 0;
}
