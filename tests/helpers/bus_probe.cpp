// The client's side of the channel in a process of its own, for the tests.
//   bus_probe observe NAME  observe NAME as an agent does, ending when the bus goes away; print
//       "registered" at each registration and "performed K" per request (K: its "k"). The loop
//       that answers the daemon waits at the first request for a line on standard input.
//   bus_probe notify NAME
//       send the distributed notification NAME twice on the shared path and once on root's,
//       print "sent" and the name this process has on the bus once the bus has them, and
//       stay connected until standard input ends

#include <gio/gio.h>

#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "foundation/RunLoop.h"
#include "foundation/SelectorTarget.h"
#include "notifications/DaemonObserverEndpoint.h"
#include "notifications/SystemBus.h"

namespace {

// One write a line: request threads print while the loop does.
void say(const std::string& line) { std::cout << line + "\n" << std::flush; }

struct Target : vesk::SelectorTarget {
  // Runs on the loop that answers the daemon.
  bool respondsToSelector(std::string_view) override {
    std::string line;
    if (!std::exchange(stalled, true)) std::getline(std::cin, line);
    return true;
  }
  void performSelector(std::string_view, const vesk::Dictionary& userInfo) override {
    say("performed " + userInfo["k"].stringValue());
  }
  bool stalled = false;
};

int observe(const std::string& name) {
  if (!vesk::exitWhenSystemBusLost([](const std::string&) {})) return 1;
  vesk::DaemonObserverEndpoint endpoint(std::make_shared<Target>(), "request:", name,
                                        vesk::kDaemonCenterName);
  vesk::RunLoop& loop = vesk::RunLoop::current();
  std::string last;
  while (true) {
    loop.runUntilCondition([&] { return endpoint.registeredOwner() != last; }, 3600);
    last = endpoint.registeredOwner();
    if (!last.empty()) say("registered");
  }
}

int notify(GDBusConnection* bus, const std::string& name) {
  for (const char* path :
       {vesk::kDistributedPath, vesk::kDistributedRootPath, vesk::kDistributedPath})
    g_dbus_connection_emit_signal(bus, nullptr, path, vesk::kDistributedInterface, "Notification",
                                  g_variant_new("(ssa{sv})", name.c_str(), "", nullptr), nullptr);
  vesk::waitForBus(bus);  // the bus takes a connection's messages in order
  say("sent " + std::string(g_dbus_connection_get_unique_name(bus)));
  std::string line;
  std::getline(std::cin, line);  // receivers can learn who sent them only while this lasts
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "observe" && argc == 3) return observe(argv[2]);
  GDBusConnection* bus = vesk::systemBus();
  if (bus != nullptr && what == "notify" && argc == 3) return notify(bus, argv[2]);
  return 2;
}
