#include "logging/VKLogging.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace vesk {
namespace {

std::atomic<VKLogging::CommandSwitch> verboseSwitch{nullptr};
std::atomic<VKLogging::CommandSwitch> debugSwitch{nullptr};

// The console lock. Recursive: a message built while printing (a description that logs)
// must not deadlock its own thread.
std::recursive_mutex& consoleLock() {
  static std::recursive_mutex lock;
  return lock;
}

}  // namespace

void VKLogging::setCommandSwitches(CommandSwitch verbose, CommandSwitch debug) {
  verboseSwitch = verbose;
  debugSwitch = debug;
}

bool VKLogging::commandVerbose() {
  const CommandSwitch s = verboseSwitch.load();
  return s != nullptr && s();
}

bool VKLogging::commandDebug() {
  const CommandSwitch s = debugSwitch.load();
  return s != nullptr && s();
}

void VKLogging::printlnMessage(const std::string& message) { synchronizedPrintln("{}", message); }

void VKLogging::printlnVerboseMessage(const std::string& message) {
  synchronizedPrintln(" verbose: {}", message);
}

void VKLogging::writeConsoleLine(std::string_view message) {
  const std::size_t length = ::strnlen(message.data(), message.size());
  std::lock_guard<std::recursive_mutex> hold(consoleLock());
  std::fwrite(message.data(), 1, length, stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace vesk
