#include "notifications/SystemBus.h"

#include <gio/gio.h>

#include <mutex>
#include <vector>

namespace vesk {

GDBusConnection* systemBus(std::string* why) {
  static std::mutex lock;
  static GDBusConnection* connection = nullptr;  // guarded by lock; a reference of our own
  // Closed connections stay referenced: objects and subscriptions made on them may still
  // point to them. One per time the bus went away.
  static std::vector<GDBusConnection*> closed;  // guarded by lock
  std::lock_guard<std::mutex> hold(lock);
  if (connection != nullptr && !g_dbus_connection_is_closed(connection)) return connection;
  if (connection != nullptr) {
    closed.push_back(connection);
    connection = nullptr;
  }
  GError* error = nullptr;
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (address != nullptr) {
    connection = g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    g_free(address);
  }
  if (connection == nullptr) {
    if (why != nullptr) *why = error != nullptr ? error->message : "no system bus";
    g_clear_error(&error);
    return nullptr;
  }
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  return connection;
}

GVariant* callSync(GDBusConnection* bus, const std::string& destination, const char* path,
                   const char* interface, const char* method, GVariant* parameters,
                   const char* replyType, int timeoutMs, std::string* why) {
  GError* error = nullptr;
  GVariant* reply =
      g_dbus_connection_call_sync(bus, destination.c_str(), path, interface, method, parameters,
                                  replyType != nullptr ? G_VARIANT_TYPE(replyType) : nullptr,
                                  G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs, nullptr, &error);
  if (reply == nullptr && why != nullptr) *why = error != nullptr ? error->message : "no reply";
  g_clear_error(&error);
  return reply;
}

std::optional<std::string> nameOwner(GDBusConnection* bus, const std::string& name) {
  GVariant* reply =
      callSync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
               "GetNameOwner", g_variant_new("(s)", name.c_str()), "(s)", -1, nullptr);
  if (reply == nullptr) return std::nullopt;
  const gchar* owner = nullptr;
  g_variant_get(reply, "(&s)", &owner);
  std::string result(owner);
  g_variant_unref(reply);
  return result;
}

std::optional<uid_t> connectionUnixUser(GDBusConnection* bus, const std::string& sender) {
  GVariant* reply =
      callSync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
               "GetConnectionUnixUser", g_variant_new("(s)", sender.c_str()), "(u)", -1, nullptr);
  if (reply == nullptr) return std::nullopt;
  guint32 uid = 0;
  g_variant_get(reply, "(u)", &uid);
  g_variant_unref(reply);
  return static_cast<uid_t>(uid);
}

}  // namespace vesk

namespace vesk {

void waitForBus(GDBusConnection* bus) {
  if (GVariant* id = callSync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                              "org.freedesktop.DBus", "GetId", nullptr, "(s)", -1, nullptr))
    g_variant_unref(id);
}

}  // namespace vesk
