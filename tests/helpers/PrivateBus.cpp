#include "helpers/PrivateBus.h"

#include <sys/stat.h>

#include <cstdlib>
#include <stdexcept>

#include "platform/ChildProcess.h"

namespace vesk::test {

PrivateBus::PrivateBus(bool withClientsPolicy) {
  ::chmod(folder_.path().c_str(), 0755);
  const std::string socket = (folder_.path() / "system_bus_socket").string();
  // The system bus's own defaults: anyone may connect and send signals; names and method
  // calls need the holes that the client's policy punches.
  folder_.write(
      "bus.conf",
      "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
      " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
      "<busconfig>\n"
      "  <type>system</type>\n"
      "  <auth>EXTERNAL</auth>\n"
      "  <listen>unix:path=" +
          socket +
          "</listen>\n"
          "  <policy context=\"default\">\n"
          "    <allow user=\"*\"/>\n"
          "    <deny own=\"*\"/>\n"
          "    <deny send_type=\"method_call\"/>\n"
          "    <allow send_type=\"signal\"/>\n"
          "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
          "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
          "    <allow receive_type=\"method_call\"/>\n"
          "    <allow receive_type=\"method_return\"/>\n"
          "    <allow receive_type=\"error\"/>\n"
          "    <allow receive_type=\"signal\"/>\n"
          "    <allow send_destination=\"org.freedesktop.DBus\"\n"
          "           send_interface=\"org.freedesktop.DBus\"/>\n" +
          std::string(withClientsPolicy
                          ? "  </policy>\n  <include>" VESK_DBUS_POLICY "</include>\n"
                          : "    <allow own=\"*\"/><allow send_type=\"method_call\"/>\n"
                            "  </policy>\n") +
          "</busconfig>\n");
  start();
}

void PrivateBus::start() {
  ChildProcessPlan plan;
  plan.path = "/usr/bin/dbus-daemon";
  plan.arguments = {"--config-file=" + (folder_.path() / "bus.conf").string(), "--nofork",
                    "--print-address"};
  plan.input = StdioMode::kPipe;
  plan.output = StdioMode::kPipe;
  daemon_ = ChildProcess::launch(plan);
  std::string printed;
  while (printed.find('\n') == std::string::npos)
    if (!daemon_->readOutputFor(printed, 10000)) break;
  const std::size_t end = printed.find('\n');
  if (end == std::string::npos) throw std::runtime_error("dbus-daemon did not start: " + printed);
  address_ = printed.substr(0, end);
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
}

void PrivateBus::restart() {
  daemon_->terminate();
  daemon_->waitUntilExit();
  start();
}

PrivateBus::~PrivateBus() {
  daemon_->terminate();
  daemon_->waitUntilExit();
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

}  // namespace vesk::test
