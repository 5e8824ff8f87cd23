// Fetches the URL given as its argument and exits with 0 on a 200; the set-user-id test runs it
// with the TLS key-log variable set.

#include <unistd.h>

#include "networking/VESKHTTPRequest.h"

// A set-user-id process cannot be traced, so the leak checker could not run in it.
extern "C" int __lsan_is_turned_off() { return geteuid() != getuid(); }

int main(int argc, char** argv) {
  return argc == 2 && vesk::VESKHTTPRequest(argv[1]).submitRequest()->responseCode() == 200 ? 0 : 1;
}
