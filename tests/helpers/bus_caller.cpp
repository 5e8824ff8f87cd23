// Makes one raw call on the system bus, so that tests can act as another user or send what
// the client itself never would.
//
//   bus_caller own NAME                       ask for a name
//   bus_caller perform DEST PATH SELECTOR     call an observer's Perform
//   bus_caller notify NAME COUNT [PATH]       post a distributed notification COUNT times
//
// Prints "ok" or the bus's error; exit status 0 or 1.

#include <gio/gio.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const std::string what = argv[1];
  GError* error = nullptr;
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  GVariant* reply = nullptr;
  if (bus != nullptr && what == "own") {
    reply = g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                        "org.freedesktop.DBus", "RequestName",
                                        g_variant_new("(su)", argv[2], 4u), G_VARIANT_TYPE("(u)"),
                                        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  } else if (bus != nullptr && what == "perform" && argc == 5) {
    GVariantBuilder empty;
    g_variant_builder_init(&empty, G_VARIANT_TYPE("a{sv}"));
    reply = g_dbus_connection_call_sync(
        bus, argv[2], argv[3], "com.vesksoftware.vesk.DaemonObserver", "Perform",
        g_variant_new("(sa{sv})", argv[4], &empty), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE,
        5000, nullptr, &error);
  }
  if (bus != nullptr && what == "notify" && (argc == 4 || argc == 5)) {
    const char* path = argc == 5 ? argv[4] : "/com/vesksoftware/DistributedNotificationCenter";
    GVariantBuilder empty;
    for (int i = 0; i < std::atoi(argv[3]); ++i) {
      g_variant_builder_init(&empty, G_VARIANT_TYPE("a{sv}"));
      g_dbus_connection_emit_signal(
          bus, nullptr, path, "com.vesksoftware.DistributedNotificationCenter", "Notification",
          g_variant_new("(ssa{sv})", argv[2], "", &empty), &error);
    }
    g_dbus_connection_flush_sync(bus, nullptr, nullptr);
    reply = g_variant_ref_sink(g_variant_new("()"));
  }
  if (reply == nullptr) {
    std::printf("%s\n", error != nullptr ? error->message : "bad arguments");
    return 1;
  }
  std::printf("ok\n");
  g_variant_unref(reply);
  g_object_unref(bus);
  return 0;
}
