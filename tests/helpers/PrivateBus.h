#pragma once

#include <memory>
#include <string>

#include "helpers/TestSupport.h"

namespace vesk {
class ChildProcess;
}

namespace vesk::test {

// A dbus-daemon of the test's own, configured as a system bus with the client's production
// policy (or, without it, one that lets anyone own any name and call anyone), on a socket in
// a temporary folder that any user may reach. While it lives, DBUS_SYSTEM_BUS_ADDRESS points
// this process, and the children it starts, to it.
class PrivateBus {
 public:
  explicit PrivateBus(bool withClientsPolicy = true);
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& address() const { return address_; }
  std::string socketPath() const { return (folder_.path() / "system_bus_socket").string(); }
  // Stops the bus and starts another at the same address: every connection to it is lost.
  void restart();

 private:
  void start();

  TemporaryFolder folder_;
  std::unique_ptr<ChildProcess> daemon_;
  std::string address_;
};

}  // namespace vesk::test
