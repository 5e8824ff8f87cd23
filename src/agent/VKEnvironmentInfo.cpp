#include "agent/VKEnvironmentInfo.h"

#include <fmt/format.h>
#include <unistd.h>

#include <mutex>

#include "foundation/Exception.h"
#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"
#include "foundation/VESKSystemInformation.h"
#include "logging/VKLogging.h"
#include "task/VKLocalTask.h"

namespace vesk {
namespace {

struct SharedState {
  std::mutex lock;
  VKLocalTask task;                                // guarded by lock: one child at a time
  std::optional<std::string> applicationLocation;  // guarded by lock
  std::string computerName;                        // guarded by lock
  std::optional<std::string> ipAddress;            // guarded by lock
};

SharedState& shared() {
  static SharedState state;
  return state;
}

// Whether a version check passes; its exception is swallowed.
bool passes(void (*check)()) {
  try {
    check();
    return true;
  } catch (const Exception&) {
    return false;
  }
}

}  // namespace

void VKEnvironmentInfo::setApplicationLocation(std::optional<std::string> location) {
  std::lock_guard<std::mutex> hold(shared().lock);
  shared().applicationLocation = std::move(location);
}

std::optional<std::string> VKEnvironmentInfo::applicationLocation() {
  std::lock_guard<std::mutex> hold(shared().lock);
  return shared().applicationLocation;
}

void VKEnvironmentInfo::invalidateCachedData() {
  std::lock_guard<std::mutex> hold(shared().lock);
  shared().computerName.clear();
  shared().ipAddress.reset();
}

std::string VKEnvironmentInfo::ipAddress() {
  std::lock_guard<std::mutex> hold(shared().lock);
  if (!shared().ipAddress) shared().ipAddress = VESKSystemInformation::currentIPAddress();
  return *shared().ipAddress;
}

pid_t VKEnvironmentInfo::getProcessId() { return ::getpid(); }

std::string VKEnvironmentInfo::getComputerName() {
  // Every log line asks for the name, and looking it up may log (a `defaults` that does not
  // start): such a line, written while this thread looks, goes without the name.
  thread_local bool lookingUp = false;
  if (lookingUp) return "No Name";
  std::lock_guard<std::mutex> hold(shared().lock);
  SharedState& state = shared();
  if (isEmptyAfterTrim(state.computerName)) {
    lookingUp = true;
    struct Done {
      ~Done() { lookingUp = false; }
    } done;
    const Value preferences = state.task.executeReturningPlist(
        {toolPath("/usr/bin/defaults"), "read",
         fsPath("/Library/Preferences/SystemConfiguration/preferences"), "System"});
    const Dictionary* dict = preferences.dictionary();
    const Value name = dict ? dict->valueForKeyPath("System.ComputerName") : Value();
    state.computerName = name.isNil() ? "No Name" : name.stringValue();
  }
  return state.computerName;
}

uid_t VKEnvironmentInfo::uidCheck() {
  if (::setuid(::geteuid()) != 0) VKLogging::printlnVerbose("Attempt to setuid failed.");
  return ::getuid();
}

bool VKEnvironmentInfo::isRunningAsRoot() { return uidCheck() == 0; }

void VKEnvironmentInfo::rootCheck() {
  if (!isRunningAsRoot())
    throw Exception("VESK Root User",
                    "This application must be run as root. Try the sudo command.");
}

void VKEnvironmentInfo::osVersionCheck(const std::string& version) {
  if (!VESKSystemInformation().currentOperatingSystem().isGreaterThanOrEqualToVersionString(
          version))
    throw Exception("VESK OS Version",
                    fmt::format("This application must be run on Mac OS X v{} or later.", version));
}

void VKEnvironmentInfo::supportedOSCheck() { osVersionCheck("10.7.0"); }

void VKEnvironmentInfo::lionOrGreaterCheck() { osVersionCheck("10.7.0"); }

void VKEnvironmentInfo::mountainLionOrGreaterCheck() { osVersionCheck("10.8.0"); }

bool VKEnvironmentInfo::isLionOrGreater() { return passes(&lionOrGreaterCheck); }

bool VKEnvironmentInfo::isMountainLionOrGreater() { return passes(&mountainLionOrGreaterCheck); }

std::chrono::system_clock::time_point VKEnvironmentInfo::currentTime() {
  return std::chrono::system_clock::now();
}

std::string VKEnvironmentInfo::getArchitectureType() {
  std::lock_guard<std::mutex> hold(shared().lock);
  Error error;
  const std::string output = shared().task.execute({fsPath("/usr/bin/uname"), "-m"}, &error);
  if (!error.domain().empty()) {
    VKLogging::printlnVerbose("error getting architecture type: {}", error);
    return "";
  }
  return trim(output);
}

}  // namespace vesk
