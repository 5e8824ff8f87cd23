// What the command line costs: parsing a typical argument list, the numeric test every
// argument goes through, and a whole `veskAgent version` run from exec to exit.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "agent/VKCommand.h"
#include "foundation/StringHelpers.h"
#include "platform/ChildProcess.h"

namespace {

void BM_ParseTypicalArguments(benchmark::State& state) {
  const std::vector<std::string> arguments = {"/usr/local/vesk/bin/veskAgent",
                                              "-verbose",
                                              "-target",
                                              "/Volumes/Macintosh HD/",
                                              "-overrideKSV",
                                              "https://ksv.example.com:8443",
                                              "-randomDelaySeconds",
                                              "0",
                                              "-displayKSVTraffic",
                                              "-allNotifications"};
  for (auto _ : state) {
    auto command = vesk::VKCommand::create<vesk::VKCommand>(arguments);
    benchmark::DoNotOptimize(command->options().size());
  }
}
BENCHMARK(BM_ParseTypicalArguments);

void BM_IsNumeric(benchmark::State& state) {
  const std::string text = state.range(0) == 0 ? "-randomDelaySeconds" : std::string(100000, '7');
  for (auto _ : state) benchmark::DoNotOptimize(vesk::isNumeric(text));
}
BENCHMARK(BM_IsNumeric)->Arg(0)->Arg(1);

void BM_VersionVerbProcess(benchmark::State& state) {
  vesk::ChildProcessPlan plan;
  plan.path = VESK_AGENT_PATH;
  plan.arguments = {"version"};
  plan.output = vesk::StdioMode::kPipe;
  for (auto _ : state) {
    auto child = vesk::ChildProcess::launch(plan);
    benchmark::DoNotOptimize(child->readOutputToEnd());
    child->waitUntilExit();
  }
}
BENCHMARK(BM_VersionVerbProcess)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
