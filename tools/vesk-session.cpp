// vesk-session: every event the session layer reports on this machine, one JSON line each,
// for an administrator to see what a desktop reports before rolling the agent out.
//
//   vesk-session          the session's events: applications launched, activated and ended,
//                         sleep, wake, power-off, switching, screen saver, lock, log-out
//   vesk-session --exec   every program started and every process ended on the machine
//
// Each line reads {"event":…,"pid":…,"path":…,"app":…,"user":…}, with null where the event
// has no such thing. What the layer cannot hear, and how it copes, goes to standard error,
// as does "vesk-session: ready" once it listens. It stops on SIGINT or SIGTERM.

#include <fmt/format.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "ToolSupport.h"
#include "foundation/RunLoop.h"
#include "notifications/SystemBus.h"
#include "platform/SessionLayer.h"
#include "platform/Users.h"

namespace {

using vesk::Dictionary;
using vesk::Value;

void log(const std::string& message) { fmt::print(stderr, "vesk-session: {}\n", message); }

void printEvent(const std::string& event, const Value& pid, const Value& path, const Value& app,
                const Value& user) {
  std::string line = "{\"event\":";
  vesk::tools::appendJsonString(line, event);
  for (const auto& [key, value] :
       {std::pair{"pid", &pid}, {"path", &path}, {"app", &app}, {"user", &user}}) {
    line += fmt::format(",\"{}\":", key);
    vesk::tools::appendJson(line, *value);
  }
  line += "}\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

void printRecord(const std::string& event, const Dictionary& record, const std::string& user) {
  printEvent(event, record[vesk::kApplicationProcessIdentifierKey],
             record[vesk::kApplicationPathKey], record[vesk::kApplicationNameKey], Value(user));
}

Value nameOf(uid_t uid) {
  const std::string name = vesk::userNameForUid(uid);
  return name.empty() ? Value(static_cast<unsigned long long>(uid)) : Value(name);
}

void printProcessEvent(const vesk::ProcessEvent& event) {
  const bool exec = event.kind == vesk::ProcessEvent::Kind::kExec;
  printEvent(exec ? "exec" : "exit", Value(static_cast<long long>(event.pid)), Value(event.path),
             Value(), exec ? nameOf(event.uid) : Value());
}

int watchProcesses() {
  const auto source = vesk::makeSystemProcessEventSource(vesk::ProcessTable::system(), log);
  source->start(printProcessEvent);
  log(fmt::format("ready (processes: {})", source->mode()));
  vesk::tools::runUntilSignalled();
  return 0;
}

int watchSession() {
  const std::string user = vesk::currentUserShortName();
  std::string why;
  GDBusConnection* bus = vesk::systemBus(&why);
  if (bus == nullptr) log("no system bus: " + why);
  vesk::SessionLayer layer(bus, log);
  layer.start({}, [&user](const vesk::SessionEvent& event) {
    printEvent(event.name, Value(), Value(), Value(), Value(user));
  });
  vesk::Workspace& workspace = layer.workspace();
  for (const char* name : {vesk::kWillLaunchApplication, vesk::kDidLaunchApplication,
                           vesk::kDidTerminateApplication, vesk::kDidActivateApplication}) {
    workspace.addObserver(name, [&user](const std::string& name, const Dictionary& record) {
      printRecord(name, record, user);
    });
  }
  for (const char* name : {vesk::kWillSleep, vesk::kDidWake, vesk::kWillPowerOff,
                           vesk::kSessionDidBecomeActive, vesk::kSessionDidResignActive}) {
    workspace.addObserver(name, [&user](const std::string& name, const Dictionary&) {
      printEvent(name, Value(), Value(), Value(), Value(user));
    });
  }
  // What runs already, and what is in front, as the agent reports them at its start.
  for (const Dictionary& record : workspace.launchedApplications())
    printRecord("launchedApplication", record, user);
  printRecord("activeApplication", workspace.activeApplication(), user);
  const std::optional<std::string> console = layer.consoleUser();
  log(fmt::format("ready (processes: {}, login manager: {}, console user: {})",
                  layer.processes().mode(), layer.hasLoginManager() ? "yes" : "no",
                  console.value_or("unknown")));
  vesk::tools::runUntilSignalled();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string option = argc > 1 ? argv[1] : "";
  if (argc > 2 || (argc == 2 && option != "--exec")) {
    std::fputs("Usage: vesk-session [--exec]\n", stderr);
    return 1;
  }
  return option == "--exec" ? watchProcesses() : watchSession();
}
