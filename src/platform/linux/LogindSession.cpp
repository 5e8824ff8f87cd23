#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "platform/LoginSession.h"
#include "platform/ProcessSecurity.h"

namespace vesk {
namespace {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
constexpr const char* kUser = "org.freedesktop.login1.User";
constexpr const char* kSession = "org.freedesktop.login1.Session";
constexpr const char* kSeat = "org.freedesktop.login1.Seat";
constexpr const char* kSeat0Path = "/org/freedesktop/login1/seat/seat0";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
// The loop that delivers the session's events waits for these calls: none may wait long.
constexpr int kCallTimeoutMs = 5000;
constexpr int kPropertyTimeoutMs = 1000;

std::string messageOf(GError* error) {
  if (error == nullptr) return "no reply";
  g_dbus_error_strip_remote_error(error);
  return error->message;
}

class LogindSession final : public LoginSession {
 public:
  LogindSession(GDBusConnection* bus, std::function<bool()> screenSaverPresent)
      : bus_(bus != nullptr ? G_DBUS_CONNECTION(g_object_ref(bus)) : nullptr),
        screenSaverPresent_(std::move(screenSaverPresent)) {}

  ~LogindSession() override {
    for (const guint subscription : subscriptions_)
      g_dbus_connection_signal_unsubscribe(bus_, subscription);
    if (inhibitor_ >= 0) ::close(inhibitor_);
    if (bus_ != nullptr) g_object_unref(bus_);
  }

  bool start(SessionEventSink sink) override {
    if (bus_ == nullptr) {
      why_ = "Unable to follow the login session: no system bus";
      return false;
    }
    std::optional<std::string> path = findSession();
    if (!path) return false;
    sessionPath_ = std::move(*path);
    sink_ = std::move(sink);
    // Subscribed before the first values are read, so that no change falls between the two;
    // a change that the read has already seen compares equal when its signal comes.
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(
        bus_, kLogind, kManager, nullptr, kManagerPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        &LogindSession::onManagerSignal, this, nullptr));
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(
        bus_, kLogind, kProperties, "PropertiesChanged", sessionPath_.c_str(), kSession,
        G_DBUS_SIGNAL_FLAGS_NONE, &LogindSession::onSessionChanged, this, nullptr));
    const SessionProperties first = readProperties();
    active_ = first.active;
    locked_ = first.lockedHint;
    idle_ = first.idleHint;
    takeInhibitor();
    return true;
  }

  std::string why() const override { return why_; }

  std::optional<std::string> consoleUser() override {
    if (bus_ == nullptr) return std::nullopt;
    std::optional<std::string> session = objectProperty(kSeat0Path, kSeat, "ActiveSession");
    if (!session) return std::nullopt;
    std::optional<std::string> name = stringProperty(session->c_str(), kSession, "Name");
    if (!name || name->empty()) return std::nullopt;
    return name;
  }

  std::string display() override {
    if (bus_ == nullptr || sessionPath_.empty()) return "";
    return stringProperty(sessionPath_.c_str(), kSession, "Display").value_or("");
  }

 private:
  // The reply, or null with the error in `error` when one is wanted.
  GVariant* call(const char* path, const char* interface, const char* method, GVariant* parameters,
                 const char* replyType, int timeoutMs, GError** error = nullptr) {
    return g_dbus_connection_call_sync(bus_, kLogind, path, interface, method, parameters,
                                       G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, timeoutMs,
                                       nullptr, error);
  }

  // The value of a property when it has `type`; null otherwise.
  GVariant* property(const char* path, const char* interface, const char* name,
                     const GVariantType* type, GError** error = nullptr) {
    GVariant* reply = call(path, kProperties, "Get", g_variant_new("(ss)", interface, name), "(v)",
                           kPropertyTimeoutMs, error);
    if (reply == nullptr) return nullptr;
    GVariant* value = nullptr;
    g_variant_get(reply, "(v)", &value);
    g_variant_unref(reply);
    if (!g_variant_is_of_type(value, type)) g_clear_pointer(&value, g_variant_unref);
    return value;
  }

  std::optional<std::string> stringProperty(const char* path, const char* interface,
                                            const char* name) {
    GVariant* value = property(path, interface, name, G_VARIANT_TYPE_STRING);
    if (value == nullptr) return std::nullopt;
    std::string text = g_variant_get_string(value, nullptr);
    g_variant_unref(value);
    return text;
  }

  // The object path of an "(so)" property (a session, by id and path); nullopt when it names
  // none, which logind says with "/".
  std::optional<std::string> objectProperty(const char* path, const char* interface,
                                            const char* name, GError** error = nullptr) {
    GVariant* value = property(path, interface, name, G_VARIANT_TYPE("(so)"), error);
    if (value == nullptr) return std::nullopt;
    const gchar* object = nullptr;
    g_variant_get(value, "(&s&o)", nullptr, &object);
    std::optional<std::string> found;
    if (std::string_view(object) != "/") found = object;
    g_variant_unref(value);
    return found;
  }

  std::optional<std::string> findSession() {
    GError* error = nullptr;
    std::optional<std::string> path =
        objectCall("GetSessionByPID", static_cast<guint32>(::getpid()), &error);
    if (path) return path;
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
      why_ = "Unable to follow the login session: no login manager on the system bus";
      g_clear_error(&error);
      return std::nullopt;
    }
    const std::string noSession = messageOf(error);
    g_clear_error(&error);
    // A process of a systemd user unit belongs to no session: the user's graphical session is
    // the one it serves.
    std::optional<std::string> user = objectCall("GetUser", startingUserId(), &error);
    if (user) path = objectProperty(user->c_str(), kUser, "Display", &error);
    if (!path) {
      why_ = "Unable to find the login session: " + noSession +
             "; and the user's: " + (error != nullptr ? messageOf(error) : "no graphical session");
    }
    g_clear_error(&error);
    return path;
  }

  // A manager method that takes a number and answers an object path.
  std::optional<std::string> objectCall(const char* method, guint32 argument, GError** error) {
    GVariant* reply = call(kManagerPath, kManager, method, g_variant_new("(u)", argument), "(o)",
                           kCallTimeoutMs, error);
    if (reply == nullptr) return std::nullopt;
    const gchar* path = nullptr;
    g_variant_get(reply, "(&o)", &path);
    std::string found = path;
    g_variant_unref(reply);
    return found;
  }

  static void onManagerSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                              const gchar* signal, GVariant* parameters, gpointer self) {
    static_cast<LogindSession*>(self)->managerSignal(signal, parameters);
  }

  static void onSessionChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                               const gchar*, GVariant* parameters, gpointer self) {
    static_cast<LogindSession*>(self)->sessionChanged(parameters);
  }

  void managerSignal(std::string_view signal, GVariant* parameters) {
    if (signal == "SessionRemoved" && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(so)"))) {
      const gchar* path = nullptr;
      g_variant_get(parameters, "(&s&o)", nullptr, &path);
      if (sessionPath_ == path) logOut();
      return;
    }
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(b)"))) return;
    gboolean starting = FALSE;
    g_variant_get(parameters, "(b)", &starting);
    if (signal == "PrepareForSleep") {
      if (starting) {
        reportThenRelease(kWillSleep);
      } else {
        report(kDidWake, false);
        takeInhibitor();
      }
    } else if (signal == "PrepareForShutdown") {
      if (starting) {
        reportThenRelease(kWillPowerOff);
      } else {
        // A power-off that was called off: be ready for the next one.
        takeInhibitor();
      }
    }
  }

  void sessionChanged(GVariant* parameters) {
    const SessionProperties changed = sessionPropertiesFromSignal(parameters);
    apply(changed);
    bool followed = false;
    for (const std::string& name : changed.invalidated)
      followed = followed || name == "Active" || name == "LockedHint" || name == "IdleHint" ||
                 name == "State";
    if (!followed) return;
    // Some properties are announced without their value, State among them.
    apply(readProperties());
  }

  // The session's properties now; none when the login manager does not answer.
  SessionProperties readProperties() {
    GVariant* all = call(sessionPath_.c_str(), kProperties, "GetAll",
                         g_variant_new("(s)", kSession), "(a{sv})", kPropertyTimeoutMs);
    if (all == nullptr) return {};
    GVariant* dictionary = g_variant_get_child_value(all, 0);
    SessionProperties properties = sessionPropertiesFromDictionary(dictionary);
    g_variant_unref(dictionary);
    g_variant_unref(all);
    return properties;
  }

  // Reports what differs from what was known; the login manager may repeat a value.
  void apply(const SessionProperties& properties) {
    if (properties.active && properties.active != active_) {
      active_ = properties.active;
      report(*active_ ? kSessionDidBecomeActive : kSessionDidResignActive, false);
    }
    if (properties.lockedHint && properties.lockedHint != locked_) {
      locked_ = properties.lockedHint;
      report(*locked_ ? kScreenIsLocked : kScreenIsUnlocked, true);
    }
    if (properties.idleHint && properties.idleHint != idle_) {
      idle_ = properties.idleHint;
      // A screen saver that reports itself says when it starts; idleness would say it twice.
      if (!screenSaverPresent_ || !screenSaverPresent_())
        report(*idle_ ? kScreenSaverDidStart : kScreenSaverDidStop, true);
    }
    if (properties.state == "closing") logOut();
  }

  // Both the session's closing state and its removal announce the one log-out.
  void logOut() {
    if (loggedOut_) return;
    loggedOut_ = true;
    report(logoutNotificationName().c_str(), true);
  }

  void report(const char* name, bool distributed) {
    if (sink_) sink_(SessionEvent{name, {}, distributed});
  }

  // Once refused, the inhibitor is not asked for again: the login manager's policy does not
  // change between one sleep and the next.
  void takeInhibitor() {
    if (inhibitor_ >= 0 || inhibitorRefused_) return;
    GError* error = nullptr;
    GUnixFDList* descriptors = nullptr;
    GVariant* reply = g_dbus_connection_call_with_unix_fd_list_sync(
        bus_, kLogind, kManagerPath, kManager, "Inhibit",
        g_variant_new("(ssss)", "sleep:shutdown", "veskAgent",
                      "Report the session's events before the machine sleeps or powers off",
                      "delay"),
        G_VARIANT_TYPE("(h)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &descriptors,
        nullptr, &error);
    if (reply != nullptr && descriptors != nullptr) {
      gint32 index = -1;
      g_variant_get(reply, "(h)", &index);
      // Taken out of the list rather than copied: no other copy may keep the inhibitor alive
      // once it is closed here.
      gint count = 0;
      gint* received = g_unix_fd_list_steal_fds(descriptors, &count);
      for (gint i = 0; i < count; ++i) {
        if (i == index) {
          inhibitor_ = received[i];
        } else {
          ::close(received[i]);
        }
      }
      g_free(received);
    }
    if (reply != nullptr) g_variant_unref(reply);
    if (descriptors != nullptr) g_object_unref(descriptors);
    if (inhibitor_ < 0) {
      inhibitorRefused_ = true;
      why_ = "Unable to delay sleep and power-off until they are reported: " + messageOf(error);
    }
    g_clear_error(&error);
  }

  // logind waits for the delay inhibitor, not for the listeners: the event must be out before
  // the inhibitor goes. A listener may run the loop past the wake (logind stops waiting after
  // its delay limit); the inhibitor taken then is kept, only the one held before is let go.
  void reportThenRelease(const char* name) {
    const int held = std::exchange(inhibitor_, -1);
    report(name, false);
    if (held >= 0) ::close(held);
  }

  GDBusConnection* bus_;  // a reference of our own; null when none was given
  std::function<bool()> screenSaverPresent_;
  SessionEventSink sink_;
  std::string why_;
  std::string sessionPath_;
  std::vector<guint> subscriptions_;
  int inhibitor_ = -1;  // the delay inhibitor's descriptor, while held
  bool inhibitorRefused_ = false;
  // The session's properties as last known; unknown until read.
  std::optional<bool> active_;
  std::optional<bool> locked_;
  std::optional<bool> idle_;
  bool loggedOut_ = false;
};

}  // namespace

std::unique_ptr<LoginSession> makeLogindSession(GDBusConnection* systemBus,
                                                std::function<bool()> screenSaverPresent) {
  return std::make_unique<LogindSession>(systemBus, std::move(screenSaverPresent));
}

}  // namespace vesk
