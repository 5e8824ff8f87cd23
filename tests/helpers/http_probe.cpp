// Fetches the URL given as its argument and prints the status, or the error code; the
// set-user-id test runs it with the TLS key-log and proxy variables set.

#include <unistd.h>

#include <cstdio>

#include "networking/VESKHTTPRequest.h"

// A set-user-id process cannot be traced, so the leak checker could not run in it.
extern "C" int __lsan_is_turned_off() { return geteuid() != getuid(); }

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  vesk::VESKHTTPRequest request(argv[1]);
  try {
    std::printf("status=%lld\n", static_cast<long long>(request.submitRequest()->responseCode()));
  } catch (const vesk::Exception& e) {
    std::printf("error=%lld\n",
                static_cast<long long>(request.error() ? request.error()->code() : 0));
  }
  return 0;
}
