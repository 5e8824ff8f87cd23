// What logging and running children cost: log lines per second with the open-append-close
// per line that the shared log needs, and the task runner's overhead over a bare
// posix_spawn + waitpid of /bin/true, measured in the same run.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "logging/VKLogging.h"
#include "task/VKLocalTask.h"

extern char** environ;

namespace {

std::string benchComputerName() { return "bench-mac"; }

// Log lines go to a scratch root, never to the machine's log.
struct ScratchRoot {
  ScratchRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vesk-bench-XXXXXX").string();
    path = ::mkdtemp(pattern.data());
    ::setenv("VESK_ROOT", path.c_str(), 1);
    vesk::VKLogging::setLogFileSources(&benchComputerName, nullptr);
  }
  ~ScratchRoot() { std::filesystem::remove_all(path); }
  std::string path;
};

void BM_LogEventLines(benchmark::State& state) {
  ScratchRoot root;
  std::int64_t line = 0;
  for (auto _ : state)
    vesk::VKLogging::logEvent("policy {} ran: {}", ++line, "Script result: done");
  state.SetItemsProcessed(line);
}
BENCHMARK(BM_LogEventLines)->UseRealTime();

void BM_ExecuteTrue(benchmark::State& state) {
  vesk::VKLocalTask task;
  for (auto _ : state) benchmark::DoNotOptimize(task.execute({"/bin/true"}));
}
BENCHMARK(BM_ExecuteTrue)->UseRealTime()->MinTime(2.0);

void BM_BareSpawnAndWaitTrue(benchmark::State& state) {
  char path[] = "/bin/true";
  char* argv[] = {path, nullptr};
  for (auto _ : state) {
    pid_t pid = 0;
    posix_spawn(&pid, path, nullptr, nullptr, argv, environ);
    int status = 0;
    waitpid(pid, &status, 0);
  }
}
BENCHMARK(BM_BareSpawnAndWaitTrue)->UseRealTime()->MinTime(2.0);

void BM_StreamSixteenMegabytes(benchmark::State& state) {
  auto delegate = std::make_shared<vesk::VESKTaskDelegate>();
  std::size_t seen = 0;
  delegate->taskReadString = [&](vesk::VESKTask&, const std::string& text) { seen += text.size(); };
  vesk::VKLocalTask task;
  task.setDelegate(delegate);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        task.execute({"/bin/sh", "-c", "head -c 16777216 /dev/zero | tr '\\0' x"}));
  state.SetBytesProcessed(static_cast<std::int64_t>(seen));
}
BENCHMARK(BM_StreamSixteenMegabytes)->UseRealTime()->Unit(benchmark::kMillisecond);

// How far past its deadline a timed-out child is ended (deadline 0.2 s).
void BM_TimeoutOvershoot(benchmark::State& state) {
  ScratchRoot root;
  vesk::VKLocalTask task;
  double overshoot = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    task.executeWithTimeout({"/bin/sleep", "30"}, 0.2);
    overshoot +=
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() - 0.2;
  }
  state.counters["overshoot_ms"] = 1000 * overshoot / static_cast<double>(state.iterations());
}
BENCHMARK(BM_TimeoutOvershoot)->UseRealTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
