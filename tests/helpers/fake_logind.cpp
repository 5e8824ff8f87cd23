// A login manager on the bus of DBUS_SYSTEM_BUS_ADDRESS: user "someone", session 31 on seat0.
// Prints "ready" once it owns its name, then answers each command on its input once sent:
//   sleep|shutdown true|false       PrepareForSleep / PrepareForShutdown
//   active|locked|idle true|false   the session's property, announced with its value
//   state VALUE                     the session's State, announced without its value
//   remove PATH                     SessionRemoved
//   inhibitors N                    "held H of M": delay inhibitors still held, of all asked for,
//                                   once no more than N are held or five seconds have passed
//                                   (a closed descriptor may reach us late: the bus hands it on)
// --user-unit: the caller is in no session, its user's graphical one is on ":7";
// --refuse-inhibit: Inhibit is denied; --user=NAME: the session is NAME's, not someone's;
// --display=DISPLAY: the session's X display.
#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr const char* kSessionPath = "/org/freedesktop/login1/session/_31";

// In the order of the objects that main() registers.
constexpr const char* kInterfaces = R"xml(<node>
<interface name="org.freedesktop.login1.Manager">
  <method name="GetSessionByPID"><arg type="u"/><arg type="o" direction="out"/></method>
  <method name="GetUser"><arg type="u"/><arg type="o" direction="out"/></method>
  <method name="Inhibit"><arg type="s"/><arg type="s"/><arg type="s"/><arg type="s"/>
    <arg type="h" direction="out"/></method></interface>
<interface name="org.freedesktop.login1.User"><property name="Display" type="(so)" access="read"/>
</interface><interface name="org.freedesktop.login1.Seat">
  <property name="ActiveSession" type="(so)" access="read"/></interface>
<interface name="org.freedesktop.login1.Session">
  <property name="Active" type="b" access="read"/><property name="State" type="s" access="read"/>
  <property name="LockedHint" type="b" access="read"/><property name="Name" type="s" access="read"/>
  <property name="IdleHint" type="b" access="read"/><property name="Display" type="s" access="read"/>
</interface></node>)xml";

struct Logind {
  GDBusConnection* bus = nullptr;
  std::set<std::string> options;
  // The session's properties, in GVariant's text format.
  std::map<std::string, std::string> session = {{"Active", "true"},    {"LockedHint", "false"},
                                                {"IdleHint", "false"}, {"State", "'active'"},
                                                {"Name", "'someone'"}, {"Display", "''"}};
  std::vector<pollfd> inhibitors;  // our ends of the pipes handed out
  int asked = 0;
};

void callMethod(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                GVariant*, GDBusMethodInvocation* invocation, gpointer data) {
  auto& logind = *static_cast<Logind*>(data);
  const std::string name = method;
  int ends[2];
  if (name == "GetSessionByPID" && logind.options.count("--user-unit") != 0) {
    g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.login1.NoSessionForPID",
                                               "Caller belongs to no session");
  } else if (name != "Inhibit") {
    g_dbus_method_invocation_return_value(
        invocation, g_variant_new("(o)", name == "GetUser" ? "/org/freedesktop/login1/user/_1000"
                                                           : kSessionPath));
  } else if (++logind.asked; logind.options.count("--refuse-inhibit") != 0 || ::pipe(ends) != 0) {
    g_dbus_method_invocation_return_dbus_error(
        invocation, "org.freedesktop.DBus.Error.AccessDenied", "Permission denied");
  } else {
    logind.inhibitors.push_back({ends[0], 0, 0});
    GUnixFDList* list = g_unix_fd_list_new_from_array(&ends[1], 1);  // takes the write end
    g_dbus_method_invocation_return_value_with_unix_fd_list(invocation, g_variant_new("(h)", 0),
                                                            list);
    g_object_unref(list);
  }
}

GVariant* getProperty(GDBusConnection*, const gchar*, const gchar* path, const gchar*,
                      const gchar* property, GError**, gpointer data) {
  if (std::string(path) != kSessionPath) return g_variant_new("(so)", "31", kSessionPath);
  return g_variant_new_parsed(static_cast<Logind*>(data)->session[property].c_str());
}

std::string command(Logind& logind, const std::string& verb, const std::string& argument) {
  static const std::map<std::string, std::string> kProperties = {
      {"active", "Active"}, {"locked", "LockedHint"}, {"idle", "IdleHint"}, {"state", "State"}};
  std::string path = "/org/freedesktop/login1", parameters;
  const char* signal = verb == "sleep" ? "PrepareForSleep" : "PrepareForShutdown";
  if (verb == "sleep" || verb == "shutdown") {
    parameters = "(" + argument + ",)";
  } else if (verb == "remove") {
    signal = "SessionRemoved";
    parameters = "('31', objectpath '" + argument + "')";
  } else if (kProperties.count(verb) != 0) {
    const std::string& name = kProperties.at(verb);
    logind.session[name] = verb == "state" ? "'" + argument + "'" : argument;
    path = kSessionPath;
    signal = "PropertiesChanged";
    parameters = "('org.freedesktop.login1.Session', " +
                 (verb == "state" ? "@a{sv} {}, ['State'])"
                                  : "{'" + name + "': <" + argument + ">}, @as [])");
  } else if (verb == "inhibitors") {
    // A client closing its end of the pipe leaves ours hung up. Waits on those still held.
    const auto held = [&logind](int wait) {
      std::vector<pollfd> open;
      for (pollfd fd : logind.inhibitors)
        if (::poll(&fd, 1, 0) == 0) open.push_back(fd);
      if (wait > 0 && !open.empty()) ::poll(open.data(), open.size(), wait);
      return static_cast<int>(open.size());
    };
    const int most = std::atoi(argument.c_str());
    for (int turns = 0; turns < 50 && held(0) > most; ++turns) held(100);
    return "held " + std::to_string(held(0)) + " of " + std::to_string(logind.asked);
  } else {
    return "unknown: " + verb;
  }
  g_dbus_connection_emit_signal(
      logind.bus, nullptr, path.c_str(),
      path == kSessionPath ? "org.freedesktop.DBus.Properties" : "org.freedesktop.login1.Manager",
      signal, g_variant_new_parsed(parameters.c_str()), nullptr);
  g_dbus_connection_flush_sync(logind.bus, nullptr, nullptr);
  return "ok";
}

gboolean readLine(GIOChannel* input, GIOCondition, gpointer data) {
  gchar* line = nullptr;
  if (g_io_channel_read_line(input, &line, nullptr, nullptr, nullptr) != G_IO_STATUS_NORMAL)
    ::_exit(0);
  char verb[32] = "", argument[256] = "";
  std::sscanf(line, "%31s %255s", verb, argument);
  g_free(line);
  g_print("%s\n", command(*static_cast<Logind*>(data), verb, argument).c_str());
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  Logind logind;
  logind.options.insert(argv + 1, argv + argc);
  if (logind.options.count("--user-unit") != 0) logind.session["Display"] = "':7'";
  for (const std::string& option : logind.options)
    for (const auto& [prefix, property] : {std::pair{"--user=", "Name"}, {"--display=", "Display"}})
      if (option.starts_with(prefix)) {
        std::string quoted(1, '\'');  // GVariant's text form of a string
        quoted.append(option, std::string_view(prefix).size()).push_back('\'');
        logind.session[property] = quoted;
      }
  GError* error = nullptr;
  logind.bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (logind.bus == nullptr) g_error("%s", error->message);
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterfaces, nullptr);
  const GDBusInterfaceVTable vtable{callMethod, getProperty, nullptr, {}};
  const char* paths[] = {"/org/freedesktop/login1", "/org/freedesktop/login1/user/_1000",
                         "/org/freedesktop/login1/seat/seat0", kSessionPath};
  for (int i = 0; i < 4; ++i)
    g_dbus_connection_register_object(logind.bus, paths[i], node->interfaces[i], &vtable, &logind,
                                      nullptr, nullptr);
  g_io_add_watch(g_io_channel_unix_new(STDIN_FILENO), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP),
                 readLine, &logind);
  g_variant_unref(g_dbus_connection_call_sync(
      logind.bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "RequestName", g_variant_new("(su)", "org.freedesktop.login1", 0u), nullptr,
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  g_print("ready\n");
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
