#include "notifications/DaemonObserverEndpoint.h"

#include <gio/gio.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "foundation/Exception.h"
#include "logging/VKLogging.h"
#include "notifications/DBusValue.h"
#include "notifications/SystemBus.h"
#include "notifications/VESKNotificationCenter.h"

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
  auto freeHandle = [](gpointer data) { delete static_cast<HandlePtr*>(data); };
  GError* error = nullptr;
  registration_ =
      g_dbus_connection_register_object(bus_, path_.c_str(), node->interfaces[0], &vtable,
                                        new HandlePtr(handle_), freeHandle, &error);
  if (registration_ == 0) {
    VKLogging::logEventAndPrintVerbose("Unable to observe the daemon: {}", error->message);
    g_clear_error(&error);
    return;
  }
  watch_ = g_bus_watch_name_on_connection(
      bus_, daemonName_.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar* owner, gpointer data) {
        if (DaemonObserverEndpoint* endpoint = Handle::endpointOf(data))
          endpoint->registerWith(owner);
      },
      nullptr, new HandlePtr(handle_), freeHandle);
}

DaemonObserverEndpoint::~DaemonObserverEndpoint() {
  {
    std::lock_guard<std::mutex> hold(handle_->lock);
    handle_->endpoint = nullptr;
  }
  if (watch_ != 0) g_bus_unwatch_name(watch_);
  if (registration_ != 0) g_dbus_connection_unregister_object(bus_, registration_);
  if (node_ != nullptr) g_dbus_node_info_unref(static_cast<GDBusNodeInfo*>(node_));
  if (bus_ != nullptr) g_object_unref(bus_);
}

std::string DaemonObserverEndpoint::registeredOwner() const {
  std::lock_guard<std::mutex> hold(lock_);
  return registeredOwner_;
}

void DaemonObserverEndpoint::registerWith(const std::string& owner) {
  {
    std::lock_guard<std::mutex> hold(lock_);
    if (owner == registeredOwner_) return;
  }
  try {
    VESKNotificationCenterProxy(owner).addDaemonObserver(path_, selector_, notificationName_);
    std::lock_guard<std::mutex> hold(lock_);
    registeredOwner_ = owner;
  } catch (const Exception& e) {
    VKLogging::logEventAndPrintVerbose("Unable to register with the daemon: {}", e.reason());
  }
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
  std::thread([target = target_, selector, userInfo = std::move(userInfo)] {
    try {
      target->performSelector(selector, userInfo);
    } catch (const std::exception& e) {
      VKLogging::logEventAndPrintVerbose("Daemon request {} failed: {}", selector, e.what());
    }
  }).detach();
}

}  // namespace vesk
