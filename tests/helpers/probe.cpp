// What a process of the client does where the tests' own process cannot be put: run as
// another user, set-user-id, or with a hostile environment. `probe MODE`: env (paths, system
// version and ids it would use, what its children inherit), task-env (its children's
// environment), log-level (two extreme lines around a switch to "info"), kill (below).

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "agent/VKCommand.h"
#include "config/VKDefaultsWrapper.h"
#include "foundation/Paths.h"
#include "foundation/VESKSystemInformation.h"
#include "logging/VKLogging.h"
#include "restrictions/BlacklistedSoftwareHelper.h"
#include "restrictions/EnforceRestrictionsAgentStrategy.h"
#include "task/VKLocalTask.h"

// A set-user-id process cannot be traced, so the leak checker could not run in it.
extern "C" int __lsan_is_turned_off() { return geteuid() != getuid(); }

namespace {

// Launch records of a killing entry whose pids name no process it may end, handled in a session
// of its own as an unprivileged user: a kill of 0 would end this group, of -1 every process of
// the user. Prints "alive" when the sleeping child survived them all.
int handKillRecords() {
  ::setsid();
  const pid_t sleeper = ::fork();
  if (sleeper == 0) {
    ::execl("/bin/sleep", "sleep", "60", nullptr);
    ::_exit(127);
  }
  vesk::EnforceRestrictionsAgentStrategy strategy;
  strategy.setBlacklist(vesk::BlacklistedSoftwareHelper::loadBlacklistedSoftwareFromXMLString(
      "<l><ns2:blacklisted><ns2:id>1</ns2:id><ns2:process>chess</ns2:process>"
      "<ns2:kill>true</ns2:kill></ns2:blacklisted></l>"));
  const vesk::Value path("/x/chess");
  // No pid at all, then 0, -1, this process, numbers that wrap to 0 and -1, and text.
  strategy.launchingApplication({{"NSApplicationPath", path}});
  for (const vesk::Value& pid :
       {vesk::Value(0LL), vesk::Value(-1LL), vesk::Value(static_cast<long long>(::getpid())),
        vesk::Value(4294967296LL), vesk::Value(4294967295LL), vesk::Value(-4294967297LL),
        vesk::Value("-1")})
    strategy.launchingApplication(
        {{"NSApplicationPath", path}, {"NSApplicationProcessIdentifier", pid}});
  const bool alive = ::waitpid(sleeper, nullptr, WNOHANG) == 0;
  std::printf("%s\n", alive ? "alive" : "the sleeping process was killed");
  ::kill(sleeper, SIGTERM);
  return alive ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  vesk::forgetIgnoredOverrides();
  if (mode == "env") {
    const char* inherited = std::getenv("VESK_ROOT");
    std::printf("children see=%s\npath=%s\nos=%s\nuid=%d euid=%d\n",
                inherited ? inherited : "(unset)", vesk::fsPath("/usr/bin/gzip").c_str(),
                vesk::VESKSystemInformation().currentOperatingSystem().versionString().c_str(),
                static_cast<int>(getuid()), static_cast<int>(geteuid()));
  } else if (mode == "task-env") {
    std::printf("euid=%d\n%s\n", static_cast<int>(geteuid()),
                vesk::VKLocalTask().execute({"/usr/bin/env"}).c_str());
  } else if (mode == "log-level") {
    (void)vesk::VKCommand::verbose();  // the command line's first use installs its hooks
    vesk::VKLogging::logExtreme("first extreme line");
    vesk::VKDefaultsWrapper().writeStringValue(
        "info", "global_log_level",
        vesk::fsPath("/Library/Preferences/com.vesksoftware.vesk.plist"));
    vesk::VKLogging::logExtreme("second extreme line");
  } else if (mode == "kill") {
    return handKillRecords();
  } else {
    return 2;  // no such mode
  }
  return 0;
}
