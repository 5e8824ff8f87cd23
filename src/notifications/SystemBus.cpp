#include "notifications/SystemBus.h"

#include <gio/gio.h>
#include <unistd.h>

#include <cstdio>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/ProcessSecurity.h"

namespace vesk {
namespace {

// Everything about the process's connection, behind one lock.
struct BusState {
  std::mutex lock;
  GDBusConnection* connection = nullptr;  // guarded by lock; a reference of our own
  // Closed connections stay referenced: objects and subscriptions made on them may still
  // point to them. One per time the bus went away.
  std::vector<GDBusConnection*> closed;  // guarded by lock
  std::uint64_t generation = 0;          // guarded by lock

  // A thread of the bus's own makes each connection, in its own context, which is where
  // GDBus then says that the connection has closed; and as the real user, which changes the
  // ids of that thread only.
  GMainContext* context = g_main_context_new();
  std::once_flag started;

  std::mutex announceLock;  // not `lock`: it is held while the bus thread connects
  std::function<void(const std::string&)> announceLoss;  // guarded by announceLock
};

BusState& state() {
  static BusState* bus = new BusState();
  return *bus;
}

void onClosed(GDBusConnection*, gboolean, GError* error, gpointer) {
  BusState& bus = state();
  std::function<void(const std::string&)> announce;
  {
    std::lock_guard<std::mutex> hold(bus.announceLock);
    announce = bus.announceLoss;
  }
  if (!announce) return;
  announce(error != nullptr ? error->message : "the bus closed the connection");
  std::fflush(nullptr);
  // Nothing made on the connection can be trusted any more, and the threads that use it
  // must not run the process's exit handlers under it.
  ::_exit(kSystemBusLostStatus);
}

// Runs on the bus thread.
GDBusConnection* connect(std::string* why) {
  GError* error = nullptr;
  GDBusConnection* connection = nullptr;
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (address != nullptr) {
    const ActingAsRealUser asUser;
    if (asUser.acting()) {
      connection = g_dbus_connection_new_for_address_sync(
          address,
          static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, nullptr, &error);
    } else {
      *why = "cannot act as the real user to connect";
    }
    g_free(address);
  }
  if (connection == nullptr) {
    if (error != nullptr) *why = error->message;
    if (why->empty()) *why = "no system bus";
    g_clear_error(&error);
    return nullptr;
  }
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  g_signal_connect(connection, "closed", G_CALLBACK(onClosed), nullptr);
  return connection;
}

GDBusConnection* connectLocked(BusState& bus, std::string* why) {
  std::call_once(bus.started, [&bus] {
    std::thread([context = bus.context] {
      g_main_context_push_thread_default(context);
      while (true) g_main_context_iteration(context, TRUE);
    }).detach();
  });
  struct Job {
    std::promise<GDBusConnection*> made;
    std::string why;
  } job;
  g_main_context_invoke(
      bus.context,
      [](gpointer data) -> gboolean {
        auto* job = static_cast<Job*>(data);
        job->made.set_value(connect(&job->why));
        return G_SOURCE_REMOVE;
      },
      &job);
  GDBusConnection* connection = job.made.get_future().get();
  if (connection == nullptr) {
    if (why != nullptr) *why = job.why;
    return nullptr;
  }
  ++bus.generation;
  return connection;
}

}  // namespace

GDBusConnection* systemBus(std::string* why) {
  BusState& bus = state();
  std::lock_guard<std::mutex> hold(bus.lock);
  if (bus.connection != nullptr && !g_dbus_connection_is_closed(bus.connection))
    return bus.connection;
  if (bus.connection != nullptr) {
    bus.closed.push_back(bus.connection);
    bus.connection = nullptr;
  }
  bus.connection = connectLocked(bus, why);
  return bus.connection;
}

std::uint64_t systemBusGeneration() {
  BusState& bus = state();
  std::lock_guard<std::mutex> hold(bus.lock);
  return bus.generation;
}

bool systemBusIsRoot() {
  BusState& bus = state();
  std::lock_guard<std::mutex> hold(bus.lock);
  // The connection is made as the user who started the process.
  return bus.connection != nullptr && startingUserId() == 0;
}

bool exitWhenSystemBusLost(std::function<void(const std::string&)> announce, std::string* why) {
  BusState& bus = state();
  {
    std::lock_guard<std::mutex> hold(bus.announceLock);
    bus.announceLoss = std::move(announce);
  }
  return systemBus(why) != nullptr;
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

std::string tooLargeToPost(GVariant* parameters) {
  const std::size_t size = g_variant_get_size(parameters);
  if (size <= kMaxPostBytes) return "";
  return "the notification is too large (" + std::to_string(size) + " bytes)";
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

void waitForBus(GDBusConnection* bus) {
  if (GVariant* id = callSync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                              "org.freedesktop.DBus", "GetId", nullptr, "(s)", -1, nullptr))
    g_variant_unref(id);
}

}  // namespace vesk
