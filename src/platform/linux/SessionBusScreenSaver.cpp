#include <gio/gio.h>
#include <unistd.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "foundation/Paths.h"
#include "platform/LoginSession.h"
#include "platform/ProcessSecurity.h"

namespace vesk {
namespace {

// Each desktop's screen saver, by the bus name it owns and the interface of its ActiveChanged;
// KDE's is at two paths.
struct Saver {
  const char* name;
  std::vector<const char*> paths;  // null: any path
};
const std::vector<Saver>& savers() {
  static const std::vector<Saver> all = {
      {"org.freedesktop.ScreenSaver", {"/ScreenSaver", "/org/freedesktop/ScreenSaver"}},
      {"org.gnome.ScreenSaver", {nullptr}},
      {"org.cinnamon.ScreenSaver", {nullptr}},
      {"org.xfce.ScreenSaver", {nullptr}},
  };
  return all;
}

class SessionBusScreenSaver final : public ScreenSaver {
 public:
  ~SessionBusScreenSaver() override {
    for (const guint watch : watches_) g_bus_unwatch_name(watch);
    for (const guint subscription : subscriptions_)
      g_dbus_connection_signal_unsubscribe(bus_, subscription);
    if (bus_ != nullptr) g_object_unref(bus_);
  }

  bool start(SessionEventSink sink) override {
    const std::string socket = fsPath("/run/user/" + std::to_string(startingUserId()) + "/bus");
    gchar* escaped = g_dbus_address_escape_value(socket.c_str());
    const std::string address = std::string("unix:path=") + escaped;
    g_free(escaped);
    GError* error = nullptr;
    {
      // The bus takes the peer's credentials when it is connected to, and a set-user-id
      // process is let in only as its user.
      const ActingAsRealUser asUser;
      if (asUser.acting()) {
        bus_ = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
      }
    }
    if (bus_ == nullptr) {
      why_ = "Unable to connect to the session bus at " + socket + ": " +
             (error != nullptr ? error->message : "cannot act as the real user");
      g_clear_error(&error);
      return false;
    }
    // The session bus ends with the session; the agent does not end with it.
    g_dbus_connection_set_exit_on_close(bus_, FALSE);
    sink_ = std::move(sink);
    for (const Saver& saver : savers()) {
      for (const char* path : saver.paths)
        subscriptions_.push_back(g_dbus_connection_signal_subscribe(
            bus_, nullptr, saver.name, "ActiveChanged", path, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
            &SessionBusScreenSaver::onActiveChanged, this, nullptr));
      watches_.push_back(g_bus_watch_name_on_connection(
          bus_, saver.name, G_BUS_NAME_WATCHER_FLAGS_NONE, &SessionBusScreenSaver::onAppeared,
          &SessionBusScreenSaver::onVanished, this, nullptr));
    }
    return true;
  }

  std::string why() const override { return why_; }

  bool present() const override { return !owned_.empty(); }

 private:
  static void onActiveChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                              const gchar*, GVariant* parameters, gpointer self) {
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(b)"))) return;
    gboolean active = FALSE;
    g_variant_get(parameters, "(b)", &active);
    static_cast<SessionBusScreenSaver*>(self)->changed(active != FALSE);
  }

  static void onAppeared(GDBusConnection*, const gchar* name, const gchar*, gpointer self) {
    static_cast<SessionBusScreenSaver*>(self)->owned_.insert(name);
  }

  static void onVanished(GDBusConnection*, const gchar* name, gpointer self) {
    static_cast<SessionBusScreenSaver*>(self)->owned_.erase(name);
  }

  // One screen saver may announce itself on two paths, and a desktop may run two of them:
  // only a change of state is reported.
  void changed(bool active) {
    if (active_ == active) return;
    active_ = active;
    if (sink_) sink_(SessionEvent{active ? kScreenSaverDidStart : kScreenSaverDidStop, {}, true});
  }

  GDBusConnection* bus_ = nullptr;  // ours, once connected
  SessionEventSink sink_;
  std::string why_;
  std::vector<guint> subscriptions_;
  std::vector<guint> watches_;
  std::set<std::string> owned_;  // the names of `savers` that have an owner now
  std::optional<bool> active_;
};

}  // namespace

std::unique_ptr<ScreenSaver> makeSessionBusScreenSaver() {
  return std::make_unique<SessionBusScreenSaver>();
}

}  // namespace vesk
