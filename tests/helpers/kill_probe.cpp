// Hands the enforcer, with the real process table, launch records of a killing entry whose pid
// names no process it may end. Run as an unprivileged user, in a session of its own: a kill of
// 0 would end this group, of -1 every process of the user, the sleeping child included.
// Prints "alive" when every record has been handled.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "restrictions/BlacklistedSoftwareHelper.h"
#include "restrictions/EnforceRestrictionsAgentStrategy.h"

int main() {
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
  const vesk::Value self(static_cast<long long>(::getpid()));
  // No pid at all, then 0, -1, this process, and numbers that wrap to 0 and -1 as a pid.
  strategy.launchingApplication({{"NSApplicationPath", path}});
  for (const long long pid :
       {0LL, -1LL, static_cast<long long>(::getpid()), 4294967296LL, 4294967295LL, -4294967297LL})
    strategy.launchingApplication(
        {{"NSApplicationPath", path}, {"NSApplicationProcessIdentifier", vesk::Value(pid)}});
  strategy.launchingApplication(
      {{"NSApplicationPath", path}, {"NSApplicationProcessIdentifier", vesk::Value("-1")}});
  int status = 0;
  const bool sleeperAlive = ::waitpid(sleeper, &status, WNOHANG) == 0;
  std::printf("%s\n", sleeperAlive ? "alive" : "the sleeping process was killed");
  ::kill(sleeper, SIGTERM);
  return sleeperAlive ? 0 : 1;
}
