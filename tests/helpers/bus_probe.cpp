// The client's side of the channel in a process of its own, for the tests.
//   bus_probe whoami    print the uid the bus knows this process by
//   bus_probe observe NAME [stall|stall-once]
//       observe NAME as an agent does, ending when the bus goes away; print "registered" at
//       each registration and "performed K" per request (K: its "k"). The loop that answers
//       the daemon stops for good (stall) or for two seconds at the first request.

#include <gio/gio.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "foundation/RunLoop.h"
#include "foundation/SelectorTarget.h"
#include "notifications/DaemonObserverEndpoint.h"
#include "notifications/SystemBus.h"

namespace {

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

class Target : public vesk::SelectorTarget {
 public:
  explicit Target(std::string stall) : stall_(std::move(stall)) {}
  // Runs on the loop that answers the daemon.
  bool respondsToSelector(std::string_view) override {
    if (stall_ == "stall") ::pause();
    if (stall_ == "stall-once" && !stalled_) {
      stalled_ = true;
      ::sleep(2);
    }
    return true;
  }
  void performSelector(std::string_view, const vesk::Dictionary& userInfo) override {
    say("performed " + userInfo["k"].stringValue());
  }

 private:
  const std::string stall_;
  bool stalled_ = false;
};

int observe(const std::string& name, const std::string& stall) {
  std::string why;
  if (!vesk::exitWhenSystemBusLost([](const std::string&) {}, &why)) {
    say("no bus: " + why);
    return 1;
  }
  vesk::DaemonObserverEndpoint endpoint(std::make_shared<Target>(stall), "request:", name,
                                        vesk::kDaemonCenterName);
  vesk::RunLoop& loop = vesk::RunLoop::current();
  std::string last;
  while (true) {
    loop.runUntilCondition([&] { return endpoint.registeredOwner() != last; }, 3600);
    last = endpoint.registeredOwner();
    if (!last.empty()) say("registered");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "whoami") {
    std::string why;
    GDBusConnection* bus = vesk::systemBus(&why);
    std::optional<uid_t> uid;
    if (bus != nullptr) uid = vesk::connectionUnixUser(bus, g_dbus_connection_get_unique_name(bus));
    say(uid ? "uid " + std::to_string(*uid) : "no bus: " + why);
    return uid ? 0 : 1;
  }
  if (what == "observe" && argc >= 3) return observe(argv[2], argc > 3 ? argv[3] : "");
  return 2;
}
