#include "logging/VKLogging.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "foundation/StringHelpers.h"
#include "logging/LogFile.h"
#include "logging/VKPolicyLogStorage.h"

namespace vesk {
namespace {

std::atomic<VKLogging::CommandSwitch> verboseSwitch{nullptr};
std::atomic<VKLogging::CommandSwitch> debugSwitch{nullptr};
std::atomic<VKLogging::ComputerNameSource> computerNameSource{nullptr};
std::atomic<VKLogging::Compressor> compressor{nullptr};
std::atomic<VKLogging::LogLevelReader> logLevelReader{nullptr};

// 2: not read yet.
constexpr int kLevelNotRead = 2;
std::atomic<int> globalLevel{kLevelNotRead};
std::once_flag levelRead;

// The console lock. Recursive: a message built while printing (a description that logs)
// must not deadlock its own thread.
std::recursive_mutex& consoleLock() {
  static std::recursive_mutex lock;
  return lock;
}

// How many identical lines in a row a policy event may hold before the run is shortened.
constexpr std::size_t kNumberOfDuplicateLinesReductionTrigger = 5;

struct PolicyState {
  std::mutex lock;
  VKPolicyLogStorage storage;  // guarded by lock
  bool enabled = false;        // guarded by lock
  bool success = true;         // guarded by lock
};

PolicyState& policy() {
  static PolicyState state;
  return state;
}

}  // namespace

void VKLogging::setCommandSwitches(CommandSwitch verbose, CommandSwitch debug) {
  verboseSwitch = verbose;
  debugSwitch = debug;
}

void VKLogging::setLogFileSources(ComputerNameSource computerName, Compressor compress) {
  computerNameSource = computerName;
  compressor = compress;
}

void VKLogging::setLogLevelReader(LogLevelReader reader) { logLevelReader = reader; }

bool VKLogging::commandVerbose() {
  const CommandSwitch s = verboseSwitch.load();
  return s != nullptr && s();
}

bool VKLogging::commandDebug() {
  const CommandSwitch s = debugSwitch.load();
  return s != nullptr && s();
}

void VKLogging::logEventMessage(const std::string& message) {
  LogFile{computerNameSource.load(), compressor.load()}.append(message);
}

void VKLogging::printlnMessage(const std::string& message) {
  writeConsoleLine(message);
  addToPolicyEvents(message);
}

void VKLogging::printlnVerboseMessage(const std::string& message) {
  synchronizedPrintln(" verbose: {}", message);
}

void VKLogging::logEventAndPrintVerboseMessage(const std::string& message) {
  logEventMessage(message);
  if (commandVerbose()) printlnVerboseMessage(message);
}

void VKLogging::writeConsoleLine(std::string_view message) {
  const std::size_t length = ::strnlen(message.data(), message.size());
  std::lock_guard<std::recursive_mutex> hold(consoleLock());
  std::fwrite(message.data(), 1, length, stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void VKLogging::logError(const Error* error) {
  if (error == nullptr) return;
  logEventAndPrintVerbose("{}", error->description());
}

void VKLogging::logError(const Error* error, std::string_view message) {
  if (error == nullptr) return;
  logEventAndPrintVerbose("{}: {}", message, error->description());
}

int VKLogging::globalLogLevel() {
  // The reader runs a child; should anything on its way ask for the level, it gets the
  // normal one instead of waiting on the read it is part of.
  thread_local bool reading = false;
  if (reading) return 1;
  std::call_once(levelRead, [] {
    const LogLevelReader reader = logLevelReader.load();
    reading = true;
    struct Done {
      ~Done() { reading = false; }
    } done;
    globalLevel = reader != nullptr ? reader() : 1;
  });
  return globalLevel.load();
}

void VKLogging::addToPolicyEvents(const std::string& message) {
  std::lock_guard<std::mutex> hold(policy().lock);
  if (!policy().enabled) return;
  policy().storage.addLogEvent(
      stringByReducingConsecutiveIdenticalLines(message, kNumberOfDuplicateLinesReductionTrigger));
}

void VKLogging::addToPolicySuccess(bool success) {
  std::lock_guard<std::mutex> hold(policy().lock);
  if (policy().enabled) policy().success = policy().success && success;
}

bool VKLogging::getPolicySuccess() {
  std::lock_guard<std::mutex> hold(policy().lock);
  return policy().success;
}

void VKLogging::startPolicyLoggingWithLimit(std::uint64_t limit) {
  std::lock_guard<std::mutex> hold(policy().lock);
  policy().storage.clean();
  policy().storage.setMaxPolicyLogBytes(limit);
  policy().enabled = true;
  policy().success = true;
}

void VKLogging::restartPolicyLogging() {
  std::lock_guard<std::mutex> hold(policy().lock);
  policy().enabled = true;
}

void VKLogging::stopPolicyLogging() {
  std::lock_guard<std::mutex> hold(policy().lock);
  policy().enabled = false;
}

void VKLogging::clearPolicyLogEvents() {
  std::lock_guard<std::mutex> hold(policy().lock);
  policy().storage.clean();
  policy().success = true;
}

std::vector<std::string> VKLogging::policyLogEvents() {
  std::lock_guard<std::mutex> hold(policy().lock);
  return policy().storage.logEvents();
}

bool VKLogging::logTruncated() {
  std::lock_guard<std::mutex> hold(policy().lock);
  return policy().storage.truncatedEvents() != 0;
}

}  // namespace vesk
