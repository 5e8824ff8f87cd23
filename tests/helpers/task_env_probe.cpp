// Prints the environment that the client's children get from this process; the set-user-id
// test runs it with a hostile environment.

#include <unistd.h>

#include <cstdio>

#include "foundation/Paths.h"
#include "task/VKLocalTask.h"

// A set-user-id process cannot be traced, so the leak checker could not run in it.
extern "C" int __lsan_is_turned_off() { return geteuid() != getuid(); }

int main() {
  vesk::forgetIgnoredOverrides();
  std::printf("euid=%d\n%s\n", static_cast<int>(geteuid()),
              vesk::VKLocalTask().execute({"/usr/bin/env"}).c_str());
  return 0;
}
