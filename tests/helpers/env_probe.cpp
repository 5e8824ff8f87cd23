// Prints the sandbox path and operating-system version this process would use, what its
// children would inherit, and its user ids; the set-user-id test runs it with both variables set.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "foundation/Paths.h"
#include "foundation/VESKSystemInformation.h"

// A set-user-id process cannot be traced, so the leak checker could not run in it.
extern "C" int __lsan_is_turned_off() { return geteuid() != getuid(); }

int main() {
  vesk::forgetIgnoredOverrides();
  const char* inherited = std::getenv("VESK_ROOT");
  std::printf("children see=%s\n", inherited ? inherited : "(unset)");
  std::printf("path=%s\n", vesk::fsPath("/usr/bin/gzip").c_str());
  std::printf("os=%s\n",
              vesk::VESKSystemInformation().currentOperatingSystem().versionString().c_str());
  std::printf("uid=%d euid=%d\n", static_cast<int>(getuid()), static_cast<int>(geteuid()));
  return 0;
}
