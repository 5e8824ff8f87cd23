#include "notifications/BusUsers.h"

#include <gio/gio.h>

#include <future>
#include <thread>

#include "foundation/RunLoop.h"
#include "notifications/SystemBus.h"

namespace vesk {
namespace {

// How long the user of a connection that has gone is remembered, for its signals still
// waiting to be handled.
constexpr double kRememberGoneSeconds = 60;

}  // namespace

BusUsers& BusUsers::shared() {
  static BusUsers* users = new BusUsers();
  return *users;
}

bool BusUsers::start() {
  std::lock_guard<std::mutex> hold(lock_);
  if (started_) return true;
  GDBusConnection* bus = systemBus();
  if (bus == nullptr) return false;
  started_ = true;
  std::promise<void> watching;
  std::thread([this, bus, &watching] {
    RunLoop& loop = RunLoop::current();
    g_dbus_connection_signal_subscribe(
        bus, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection* connection, const gchar*, const gchar*, const gchar*, const gchar*,
           GVariant* parameters, gpointer data) {
          auto* users = static_cast<BusUsers*>(data);
          const gchar *name = nullptr, *before = nullptr, *after = nullptr;
          g_variant_get(parameters, "(&s&s&s)", &name, &before, &after);
          if (name[0] != ':') return;  // unique names only: one per connection
          const std::string sender = name;
          if (after[0] == '\0') {
            RunLoop::current().performAfterDelay(kRememberGoneSeconds,
                                                 [users, sender] { users->forget(sender); });
            return;
          }
          struct Asked {
            BusUsers* users;
            std::string sender;
          };
          g_dbus_connection_call(
              connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
              "GetConnectionUnixUser", g_variant_new("(s)", name), G_VARIANT_TYPE("(u)"),
              G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
              [](GObject* source, GAsyncResult* result, gpointer data) {
                const std::unique_ptr<Asked> asked(static_cast<Asked*>(data));
                GVariant* reply =
                    g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
                if (reply == nullptr) return;
                guint32 uid = 0;
                g_variant_get(reply, "(u)", &uid);
                g_variant_unref(reply);
                asked->users->learn(asked->sender, static_cast<uid_t>(uid));
              },
              new Asked{users, sender});
        },
        this, nullptr);
    waitForBus(bus);  // the subscription is in place once this returns
    watching.set_value();
    while (true) loop.runUntil(3600);
  }).detach();
  watching.get_future().wait();
  return true;
}

std::optional<uid_t> BusUsers::uidOf(const std::string& sender) {
  {
    std::lock_guard<std::mutex> hold(lock_);
    const auto known = uids_.find(sender);
    if (known != uids_.end()) return known->second;
  }
  GDBusConnection* bus = systemBus();
  if (bus == nullptr) return std::nullopt;
  const std::optional<uid_t> uid = connectionUnixUser(bus, sender);
  if (uid) learn(sender, *uid);
  return uid;
}

void BusUsers::learn(const std::string& sender, uid_t uid) {
  std::lock_guard<std::mutex> hold(lock_);
  uids_[sender] = uid;
}

void BusUsers::forget(const std::string& sender) {
  std::lock_guard<std::mutex> hold(lock_);
  uids_.erase(sender);
}

}  // namespace vesk
