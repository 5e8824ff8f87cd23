// What reading the configuration costs: one key through the defaults tool (the price of the
// first debug line of a process, which reads the log level), a whole preference file parsed
// in process, a long legacy file, and a shell command line through the shell wrapper.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "config/VESKPrefsFile.h"
#include "config/VKDefaultsWrapper.h"
#include "foundation/PropertyList.h"
#include "task/SystemWrapper.h"

namespace {

namespace fs = std::filesystem;

// A scratch root whose defaults tool is the built vesk-defaults.
struct ScratchRoot {
  ScratchRoot() {
    std::string pattern = (fs::temp_directory_path() / "vesk-bench-XXXXXX").string();
    path = ::mkdtemp(pattern.data());
    fs::create_directories(path + "/usr/local/vesk/bin");
    fs::create_directories(path + "/private/tmp");
    fs::create_symlink(VESK_DEFAULTS_TOOL, path + "/usr/local/vesk/bin/vesk-defaults");
    ::setenv("VESK_ROOT", path.c_str(), 1);
  }
  ~ScratchRoot() { fs::remove_all(path); }
  std::string path;
};

const vesk::Dictionary kTypicalPreferences{
    {"ksv_url", vesk::Value("https://ksv.example:8443/")},
    {"allowInvalidCertificate", vesk::Value(false)},
    {"max_clock_skew", vesk::Value("-1")},
    {"global_log_level", vesk::Value("debug")},
    {"dexlo_app_path", vesk::Value("/Applications/Dexlo.app")},
    {"do_not_upgrade_vesk", vesk::Value(true)}};

void BM_ReadOneKeyThroughTheDefaultsTool(benchmark::State& state) {
  ScratchRoot root;
  const std::string file = root.path + "/prefs.plist";
  vesk::writePropertyListAtomically(file, vesk::Value(kTypicalPreferences));
  vesk::VKDefaultsWrapper wrapper;
  for (auto _ : state)
    benchmark::DoNotOptimize(wrapper.readStringDefault("global_log_level", file));
}
BENCHMARK(BM_ReadOneKeyThroughTheDefaultsTool)->Unit(benchmark::kMillisecond);

void BM_LoadPreferencesFromBytes(benchmark::State& state) {
  const std::string bytes = vesk::xmlPropertyList(vesk::Value(kTypicalPreferences));
  for (auto _ : state) {
    vesk::VESKPrefsFile prefs = vesk::VESKPrefsFile::withoutLoadingData();
    prefs.loadPlistData(bytes);
    benchmark::DoNotOptimize(prefs.ksvUrl());
  }
}
BENCHMARK(BM_LoadPreferencesFromBytes)->Unit(benchmark::kMicrosecond);

void BM_ReadLegacyFileOf10000Lines(benchmark::State& state) {
  std::string text;
  for (int i = 0; i < 10000; ++i) text += "comment " + std::to_string(i) + " = value\n";
  text += "serverAddress=ksv.example\nserverPort=8080\n";
  for (auto _ : state) benchmark::DoNotOptimize(vesk::readLegacyConfiguration(text));
}
BENCHMARK(BM_ReadLegacyFileOf10000Lines)->Unit(benchmark::kMillisecond);

void BM_SystemCommand(benchmark::State& state) {
  ScratchRoot root;
  vesk::SystemWrapper wrapper;
  for (auto _ : state) benchmark::DoNotOptimize(wrapper.executeSystemCommand("echo hi"));
}
BENCHMARK(BM_SystemCommand)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
