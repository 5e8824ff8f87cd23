// A login manager for the tests, on the bus of DBUS_SYSTEM_BUS_ADDRESS: one user with one
// session on seat0. It prints "ready" once it owns its name, then reads commands on its
// standard input, one a line, and answers each with one line once what it sent has left:
//   sleep true|false, shutdown true|false     the manager's PrepareFor... signals
//   active|locked|idle true|false             the session's property, changed with its value
//   state VALUE                               the session's State, announced without its value
//   remove [PATH]                             SessionRemoved for the session (or PATH)
//   inhibitors                                "inhibitors N": delay inhibitors still held
//   asked                                     "asked N": how often Inhibit was called
// Options: --no-session-by-pid (the caller is in no session), --refuse-inhibit,
// --display NAME (the session's Display), --name NAME (its user's name).
#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <glib-unix.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kSessionPath = "/org/freedesktop/login1/session/_31";
constexpr const char* kUserPath = "/org/freedesktop/login1/user/_1000";
constexpr const char* kSeatPath = "/org/freedesktop/login1/seat/seat0";

constexpr const char* kInterfaces = R"xml(<node>
  <interface name="org.freedesktop.login1.Manager">
    <method name="GetSessionByPID"><arg type="u" direction="in"/><arg type="o" direction="out"/></method>
    <method name="GetUser"><arg type="u" direction="in"/><arg type="o" direction="out"/></method>
    <method name="Inhibit">
      <arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="s" direction="in"/>
      <arg type="s" direction="in"/><arg type="h" direction="out"/>
    </method>
  </interface>
  <interface name="org.freedesktop.login1.User">
    <property name="Display" type="(so)" access="read"/>
  </interface>
  <interface name="org.freedesktop.login1.Session">
    <property name="Active" type="b" access="read"/>
    <property name="LockedHint" type="b" access="read"/>
    <property name="IdleHint" type="b" access="read"/>
    <property name="State" type="s" access="read"/>
    <property name="Name" type="s" access="read"/>
    <property name="Display" type="s" access="read"/>
  </interface>
  <interface name="org.freedesktop.login1.Seat">
    <property name="ActiveSession" type="(so)" access="read"/>
  </interface>
</node>)xml";

struct Logind {
  GDBusConnection* bus = nullptr;
  GMainLoop* loop = nullptr;
  bool sessionByPid = true;
  bool refuseInhibit = false;
  std::string display;
  std::string name = "someone";
  std::map<std::string, bool> flags = {
      {"Active", true}, {"LockedHint", false}, {"IdleHint", false}};
  std::string state = "active";
  std::vector<int> inhibitors;  // our ends of the pipes handed out
  int asked = 0;
  std::string input;
};

void callMethod(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                GVariant*, GDBusMethodInvocation* invocation, gpointer data) {
  auto& logind = *static_cast<Logind*>(data);
  const std::string name = method;
  if (name == "GetSessionByPID" && !logind.sessionByPid) {
    g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.login1.NoSessionForPID",
                                               "Caller does not belong to any known session");
    return;
  }
  if (name != "Inhibit") {
    g_dbus_method_invocation_return_value(
        invocation, g_variant_new("(o)", name == "GetUser" ? kUserPath : kSessionPath));
    return;
  }
  ++logind.asked;
  int ends[2];
  if (logind.refuseInhibit || ::pipe(ends) != 0) {
    g_dbus_method_invocation_return_dbus_error(
        invocation, "org.freedesktop.DBus.Error.AccessDenied", "Permission denied");
    return;
  }
  logind.inhibitors.push_back(ends[0]);
  GUnixFDList* list = g_unix_fd_list_new_from_array(&ends[1], 1);  // takes the write end
  g_dbus_method_invocation_return_value_with_unix_fd_list(invocation, g_variant_new("(h)", 0),
                                                          list);
  g_object_unref(list);
}

GVariant* getProperty(GDBusConnection*, const gchar*, const gchar* path, const gchar*,
                      const gchar* property, GError**, gpointer data) {
  auto& logind = *static_cast<Logind*>(data);
  const std::string name = property;
  if (std::strcmp(path, kSessionPath) != 0) return g_variant_new("(so)", "31", kSessionPath);
  if (logind.flags.count(name) != 0) return g_variant_new_boolean(logind.flags[name]);
  if (name == "State") return g_variant_new_string(logind.state.c_str());
  return g_variant_new_string((name == "Name" ? logind.name : logind.display).c_str());
}

void reply(Logind& logind, const std::string& line) {
  g_dbus_connection_flush_sync(logind.bus, nullptr, nullptr);
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void emit(Logind& logind, const char* path, const char* interface, const char* signal,
          GVariant* parameters) {
  g_dbus_connection_emit_signal(logind.bus, nullptr, path, interface, signal, parameters, nullptr);
}

// The number of inhibitors still held: a client closing its end of the pipe leaves ours hung up.
std::size_t heldInhibitors(Logind& logind) {
  std::vector<int> held;
  for (const int end : logind.inhibitors) {
    pollfd hangUp{end, 0, 0};
    if (::poll(&hangUp, 1, 0) == 1 && (hangUp.revents & POLLHUP) != 0) {
      ::close(end);
    } else {
      held.push_back(end);
    }
  }
  logind.inhibitors = held;
  return held.size();
}

void command(Logind& logind, const std::string& line) {
  static const std::map<std::string, std::string> kSignals = {{"sleep", "PrepareForSleep"},
                                                              {"shutdown", "PrepareForShutdown"}};
  static const std::map<std::string, std::string> kFlags = {
      {"active", "Active"}, {"locked", "LockedHint"}, {"idle", "IdleHint"}};
  const std::size_t space = line.find(' ');
  const std::string verb = line.substr(0, space);
  const std::string argument = space == std::string::npos ? "" : line.substr(space + 1);
  const bool yes = argument == "true";
  if (kSignals.count(verb) != 0) {
    emit(logind, kManagerPath, "org.freedesktop.login1.Manager", kSignals.at(verb).c_str(),
         g_variant_new("(b)", yes));
  } else if (kFlags.count(verb) != 0) {
    const std::string& property = kFlags.at(verb);
    logind.flags[property] = yes;
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&changed, "{sv}", property.c_str(), g_variant_new_boolean(yes));
    emit(logind, kSessionPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
         g_variant_new("(sa{sv}as)", "org.freedesktop.login1.Session", &changed, nullptr));
  } else if (verb == "state") {
    logind.state = argument;
    const gchar* invalidated[] = {"State", nullptr};
    emit(logind, kSessionPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
         g_variant_new("(sa{sv}^as)", "org.freedesktop.login1.Session", nullptr, invalidated));
  } else if (verb == "remove") {
    emit(logind, kManagerPath, "org.freedesktop.login1.Manager", "SessionRemoved",
         g_variant_new("(so)", "31", argument.empty() ? kSessionPath : argument.c_str()));
  } else if (verb == "inhibitors") {
    return reply(logind, "inhibitors " + std::to_string(heldInhibitors(logind)));
  } else if (verb == "asked") {
    return reply(logind, "asked " + std::to_string(logind.asked));
  } else {
    return reply(logind, "unknown command: " + line);
  }
  reply(logind, "ok");
}

gboolean readInput(gint fd, GIOCondition, gpointer data) {
  auto& logind = *static_cast<Logind*>(data);
  char buffer[4096];
  const ssize_t got = ::read(fd, buffer, sizeof buffer);
  if (got <= 0) {
    g_main_loop_quit(logind.loop);
    return G_SOURCE_REMOVE;
  }
  logind.input.append(buffer, static_cast<std::size_t>(got));
  std::size_t end;
  while ((end = logind.input.find('\n')) != std::string::npos) {
    const std::string line = logind.input.substr(0, end);
    logind.input.erase(0, end + 1);
    command(logind, line);
  }
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  Logind logind;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--no-session-by-pid") logind.sessionByPid = false;
    if (option == "--refuse-inhibit") logind.refuseInhibit = true;
    if (option == "--display" && i + 1 < argc) logind.display = argv[++i];
    if (option == "--name" && i + 1 < argc) logind.name = argv[++i];
  }
  GError* error = nullptr;
  logind.bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (logind.bus == nullptr) {
    std::fprintf(stderr, "fake_logind: %s\n", error->message);
    return 1;
  }
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterfaces, nullptr);
  const GDBusInterfaceVTable manager{callMethod, nullptr, nullptr, {}};
  const GDBusInterfaceVTable properties{nullptr, getProperty, nullptr, {}};
  const struct {
    const char* path;
    const char* interface;
    const GDBusInterfaceVTable* vtable;
  } objects[] = {
      {kManagerPath, "org.freedesktop.login1.Manager", &manager},
      {kUserPath, "org.freedesktop.login1.User", &properties},
      {kSessionPath, "org.freedesktop.login1.Session", &properties},
      {kSeatPath, "org.freedesktop.login1.Seat", &properties},
  };
  for (const auto& object : objects)
    g_dbus_connection_register_object(logind.bus, object.path,
                                      g_dbus_node_info_lookup_interface(node, object.interface),
                                      object.vtable, &logind, nullptr, nullptr);
  GVariant* owned = g_dbus_connection_call_sync(
      logind.bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "RequestName", g_variant_new("(su)", "org.freedesktop.login1", 4u), G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  if (owned == nullptr) {
    std::fprintf(stderr, "fake_logind: %s\n", error->message);
    return 1;
  }
  g_variant_unref(owned);
  logind.loop = g_main_loop_new(nullptr, FALSE);
  g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), readInput, &logind);
  reply(logind, "ready");
  g_main_loop_run(logind.loop);
  g_main_loop_unref(logind.loop);
  g_dbus_node_info_unref(node);
  g_object_unref(logind.bus);
  for (const int end : logind.inhibitors) ::close(end);
  return 0;
}
