#include "notifications/DaemonObserverEndpoint.h"

#include <gio/gio.h>
#include <unistd.h>

#include <atomic>

#include "foundation/Exception.h"
#include "foundation/RunLoop.h"
#include "logging/VKLogging.h"
#include "notifications/DBusValue.h"
#include "notifications/SystemBus.h"

namespace vesk {
namespace {

const char* kObserverIntrospection =
    "<node>"
    " <interface name='com.vesksoftware.vesk.DaemonObserver'>"
    "  <method name='Perform'>"
    "   <arg type='s' name='selector' direction='in'/>"
    "   <arg type='a{sv}' name='userInfo' direction='in'/>"
    "   <arg type='b' name='responds' direction='out'/>"
    "  </method>"
    " </interface>"
    "</node>";

}  // namespace

DaemonObserverEndpoint::DaemonObserverEndpoint(std::shared_ptr<SelectorTarget> target,
                                               std::string selector, std::string notificationName,
                                               std::string daemonName)
    : target_(std::move(target)),
      selector_(std::move(selector)),
      notificationName_(std::move(notificationName)),
      daemonName_(std::move(daemonName)),
      handle_(std::make_shared<Handle>()) {
  static std::atomic<unsigned> serial{0};
  path_ = "/com/vesksoftware/vesk/DaemonObserver/" + std::to_string(++serial);
  handle_->endpoint = this;
  // What GDBus registers from here is served on this thread's loop: it must be its default.
  context_ = RunLoop::current().context();

  std::string why;
  bus_ = systemBus(&why);
  if (bus_ == nullptr) {
    VKLogging::logEventAndPrintVerbose("Unable to observe the daemon: {}", why);
    return;
  }
  g_object_ref(bus_);
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kObserverIntrospection, nullptr);
  node_ = node;

  using HandlePtr = std::shared_ptr<Handle>;
  static const GDBusInterfaceVTable vtable = {
      [](GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar*,
         GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
        DaemonObserverEndpoint* endpoint = Handle::endpointOf(data);
        if (endpoint == nullptr) {
          g_dbus_method_invocation_return_dbus_error(
              invocation, "org.freedesktop.DBus.Error.UnknownObject", "The observer has gone");
          return;
        }
        const gchar* selector = nullptr;
        g_variant_get_child(parameters, 0, "&s", &selector);
        endpoint->perform(sender != nullptr ? sender : "", selector, parameters, invocation);
      },
      nullptr,
      nullptr,
      {nullptr}};
  auto freeHandle = [](gpointer data) {
    auto* held = static_cast<HandlePtr*>(data);
    --(*held)->heldByBus;
    delete held;
  };
  auto hold = [this] {
    ++handle_->heldByBus;
    return new HandlePtr(handle_);
  };
  GError* error = nullptr;
  registration_ = g_dbus_connection_register_object(bus_, path_.c_str(), node->interfaces[0],
                                                    &vtable, hold(), freeHandle, &error);
  if (registration_ == 0) {
    VKLogging::logEventAndPrintVerbose("Unable to observe the daemon: {}", error->message);
    g_clear_error(&error);
    return;
  }
  droppedSubscription_ = g_dbus_connection_signal_subscribe(
      bus_, nullptr, kDaemonCenterInterface, "ObserverDropped", kDaemonCenterPath, nullptr,
      G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar*,
         GVariant* parameters, gpointer data) {
        DaemonObserverEndpoint* endpoint = Handle::endpointOf(data);
        if (endpoint == nullptr || sender == nullptr ||
            !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(so)")))
          return;
        const gchar *name = nullptr, *path = nullptr;
        g_variant_get(parameters, "(&s&o)", &name, &path);
        endpoint->dropped(sender, name, path);
      },
      hold(), freeHandle);
  presence_ = std::make_unique<DaemonPresence>(
      [this](const std::optional<std::string>& owner) { daemonChanged(owner.value_or("")); },
      daemonName_);
}

DaemonObserverEndpoint::~DaemonObserverEndpoint() {
  {
    std::lock_guard<std::mutex> hold(handle_->lock);
    handle_->endpoint = nullptr;
  }
  presence_.reset();
  if (droppedSubscription_ != 0) g_dbus_connection_signal_unsubscribe(bus_, droppedSubscription_);
  if (registration_ != 0) g_dbus_connection_unregister_object(bus_, registration_);
  if (node_ != nullptr) g_dbus_node_info_unref(static_cast<GDBusNodeInfo*>(node_));
  if (bus_ != nullptr) g_object_unref(bus_);
  // GDBus lets go of its copies at the next turns of this loop; the thread may never turn it
  // again, so turn it now, as long as that takes.
  while (handle_->heldByBus > 0 && g_main_context_iteration(context_, FALSE)) {
  }
}

std::string DaemonObserverEndpoint::registeredOwner() const {
  std::lock_guard<std::mutex> hold(lock_);
  return registeredOwner_;
}

void DaemonObserverEndpoint::daemonChanged(const std::string& owner) {
  {
    std::lock_guard<std::mutex> hold(lock_);
    owner_ = owner;
    if (registeredOwner_ != owner) registeredOwner_.clear();
  }
  if (!owner.empty()) registerWith(owner);
}

void DaemonObserverEndpoint::registerWith(const std::string& owner) {
  {
    std::lock_guard<std::mutex> hold(lock_);
    // One registration at a time; the one under way looks again when it is answered.
    if (registering_ || owner != owner_ || registeredOwner_ == owner) return;
    registering_ = true;
  }
  struct Call {
    std::shared_ptr<Handle> handle;
    std::string owner;
  };
  // Without waiting: the daemon may be calling this observer, whose loop is this thread's.
  g_dbus_connection_call(
      bus_, owner.c_str(), kDaemonCenterPath, kDaemonCenterInterface, "AddDaemonObserver",
      g_variant_new("(sso)", notificationName_.c_str(), selector_.c_str(), path_.c_str()), nullptr,
      G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr,
      [](GObject* source, GAsyncResult* result, gpointer data) {
        const std::unique_ptr<Call> call(static_cast<Call*>(data));
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
        const std::string failure = reply != nullptr   ? ""
                                    : error != nullptr ? error->message
                                                       : "no reply";
        if (reply != nullptr) g_variant_unref(reply);
        g_clear_error(&error);
        if (DaemonObserverEndpoint* endpoint = Handle::endpointOf(call->handle))
          endpoint->registered(call->owner, failure);
      },
      new Call{handle_, owner});
}

void DaemonObserverEndpoint::registered(const std::string& owner, const std::string& failure) {
  std::string current;
  bool firstFailure = false;
  {
    std::lock_guard<std::mutex> hold(lock_);
    registering_ = false;
    current = owner_;
    if (failure.empty() && owner == owner_) registeredOwner_ = owner;
    if (!failure.empty() && owner == owner_) firstFailure = failedOwners_.insert(owner).second;
  }
  if (firstFailure)
    VKLogging::logEventAndPrintVerbose("Unable to register with the daemon: {}", failure);
  if (current.empty()) return;
  if (current != owner) {
    registerWith(current);  // the daemon changed meanwhile
  } else if (!failure.empty()) {
    // The same daemon refused or did not answer: ask it again a little later.
    RunLoop::current().performAfterDelay(kRegistrationRetrySeconds, [handle = handle_] {
      if (DaemonObserverEndpoint* endpoint = Handle::endpointOf(handle))
        endpoint->registerWith(endpoint->currentOwner());
    });
  }
}

void DaemonObserverEndpoint::dropped(const std::string& sender, const std::string& name,
                                     const std::string& path) {
  {
    std::lock_guard<std::mutex> hold(lock_);
    // Only the daemon this observer is registered with speaks for its own table.
    if (sender != registeredOwner_ || name != notificationName_ || path != path_) return;
    registeredOwner_.clear();
  }
  VKLogging::logEventAndPrintVerbose("The daemon dropped observer {} of {}; registering again",
                                     path, name);
  registerWith(sender);
}

std::string DaemonObserverEndpoint::currentOwner() const {
  std::lock_guard<std::mutex> hold(lock_);
  return owner_;
}

bool DaemonObserverEndpoint::mayCall(const std::string& sender, uid_t* uid) {
  if (nameOwner(bus_, daemonName_) == sender) return true;
  const std::optional<uid_t> senderUid = connectionUnixUser(bus_, sender);
  if (senderUid) *uid = *senderUid;
  return senderUid == uid_t(0);
}

void DaemonObserverEndpoint::perform(const std::string& sender, const std::string& selector,
                                     void* parametersPointer, void* invocationPointer) {
  auto* parameters = static_cast<GVariant*>(parametersPointer);
  auto* invocation = static_cast<GDBusMethodInvocation*>(invocationPointer);
  uid_t uid = static_cast<uid_t>(-1);
  if (!mayCall(sender, &uid)) {
    bool first = false;
    {
      std::lock_guard<std::mutex> hold(lock_);
      first = refusedSenders_.insert(sender).second;
    }
    if (first)
      VKLogging::logEventAndPrintVerbose(
          "Refused a request from {} (uid {}): only the daemon or root may send one", sender,
          uid == static_cast<uid_t>(-1) ? -1L : static_cast<long>(uid));
    g_dbus_method_invocation_return_dbus_error(invocation, kRefusedError,
                                               "Only the daemon or root may call this observer");
    return;
  }
  const bool responds = target_->respondsToSelector(selector);
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", responds));
  if (!responds) return;

  GVariant* info = g_variant_get_child_value(parameters, 1);
  Dictionary userInfo = dictionaryFromVariant(info);
  g_variant_unref(info);
  const bool queued = requests_.post([target = target_, selector, userInfo = std::move(userInfo)] {
    try {
      target->performSelector(selector, userInfo);
    } catch (const std::exception& e) {
      VKLogging::logEventAndPrintVerbose("Daemon request {} failed: {}", selector, e.what());
    } catch (...) {
      VKLogging::logEventAndPrintVerbose("Daemon request {} failed", selector);
    }
  });
  if (!queued)
    VKLogging::logEventAndPrintVerbose("Daemon request {} dropped: too many are waiting", selector);
}

}  // namespace vesk
