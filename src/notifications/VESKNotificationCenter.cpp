#include "notifications/VESKNotificationCenter.h"

#include <gio/gio.h>

#include <cstdio>

#include "foundation/Exception.h"
#include "logging/VKLogging.h"
#include "notifications/DBusValue.h"

namespace vesk {
namespace {

// Long enough for a daemon that delivers to a few observers; a daemon that does not answer
// in this time counts as gone.
constexpr int kCallTimeoutMs = 25000;

const char* kCenterIntrospection =
    "<node>"
    " <interface name='com.vesksoftware.vesk.VESKNotificationCenter'>"
    "  <method name='PostNotification'>"
    "   <arg type='s' name='name' direction='in'/><arg type='s' name='object' direction='in'/>"
    "   <arg type='a{sv}' name='userInfo' direction='in'/>"
    "   <arg type='u' name='options' direction='in'/>"
    "  </method>"
    "  <method name='AddDaemonObserver'>"
    "   <arg type='s' name='name' direction='in'/><arg type='s' name='selector' direction='in'/>"
    "   <arg type='o' name='observer' direction='in'/>"
    "  </method>"
    "  <method name='RemoveDaemonObserver'>"
    "   <arg type='s' name='name' direction='in'/><arg type='o' name='observer' direction='in'/>"
    "  </method>"
    " </interface>"
    "</node>";

// The process-wide handle on the daemon's center. The agent touches it from its main thread;
// the lock makes posts from other threads safe too.
std::mutex sharedProxyLock;
VESKNotificationCenter::Proxy sharedProxy;  // guarded by sharedProxyLock

std::string describeCurrentException() {
  try {
    throw;
  } catch (const Exception& e) {
    return e.description();
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "unknown exception";
  }
}

}  // namespace

// An observer in another process, reached through its exported DaemonObserver object.
class VESKNotificationCenter::RemoteObserver : public SelectorTarget {
 public:
  RemoteObserver(std::string owner, std::string path)
      : owner_(std::move(owner)), path_(std::move(path)) {}

  // Whether it responds is learnt only by calling: Perform answers it.
  bool respondsToSelector(std::string_view) override { return true; }

  void performSelector(std::string_view selector, const Dictionary& userInfo) override {
    std::string why;
    GDBusConnection* bus = systemBus(&why);
    if (bus == nullptr) throw Exception("NSObjectInaccessibleException", why);
    GVariant* reply = callSync(
        bus, owner_, path_.c_str(), kDaemonObserverInterface, "Perform",
        g_variant_new("(s@a{sv})", std::string(selector).c_str(), variantFromDictionary(userInfo)),
        "(b)", kCallTimeoutMs, &why);
    if (reply == nullptr) throw Exception("NSObjectInaccessibleException", why);
    g_variant_unref(reply);  // an observer that does not respond is skipped, as here
  }

 private:
  const std::string owner_;
  const std::string path_;
};

// The center's registration on the bus.
struct VESKNotificationCenter::BusExport {
  GDBusConnection* bus = nullptr;
  guint registration = 0;
  GDBusNodeInfo* node = nullptr;
  std::weak_ptr<VESKNotificationCenter> center;

  ~BusExport() {
    if (registration != 0) g_dbus_connection_unregister_object(bus, registration);
    if (node != nullptr) g_dbus_node_info_unref(node);
  }
};

// --- The proxy ---

void VESKNotificationCenterProxy::call(const char* method, GVariant* parameters) {
  std::string why;
  GDBusConnection* bus = systemBus(&why);
  if (bus == nullptr) {
    g_variant_unref(g_variant_ref_sink(parameters));
    throw Exception("NSObjectInaccessibleException", why);
  }
  GVariant* reply = callSync(bus, owner_, kDaemonCenterPath, kDaemonCenterInterface, method,
                             parameters, "()", kCallTimeoutMs, &why);
  if (reply == nullptr) throw Exception("NSObjectInaccessibleException", why);
  g_variant_unref(reply);
}

void VESKNotificationCenterProxy::postNotificationNameOptions(
    const std::string& name, const std::optional<std::string>& object, const Dictionary& userInfo,
    unsigned options) {
  call("PostNotification", g_variant_new("(ss@a{sv}u)", name.c_str(), object.value_or("").c_str(),
                                         variantFromDictionary(userInfo), options));
}

void VESKNotificationCenterProxy::addDaemonObserver(const std::string& observerPath,
                                                    const std::string& selector,
                                                    const std::string& name) {
  call("AddDaemonObserver",
       g_variant_new("(sso)", name.c_str(), selector.c_str(), observerPath.c_str()));
}

void VESKNotificationCenterProxy::removeDaemonObserver(const std::string& observerPath,
                                                       const std::string& name) {
  call("RemoveDaemonObserver", g_variant_new("(so)", name.c_str(), observerPath.c_str()));
}

// --- Roles and the shared handle ---

VESKNotificationCenter::VESKNotificationCenter() = default;
VESKNotificationCenter::~VESKNotificationCenter() = default;

std::shared_ptr<VESKNotificationCenter> VESKNotificationCenter::initForDaemonWithName(
    const std::string& name) {
  auto center = std::make_shared<VESKNotificationCenter>();
  center->registeredName_ = name;
  center->isDaemon_ = true;
  return center;
}

std::shared_ptr<VESKNotificationCenter> VESKNotificationCenter::notificationServerWithName(
    const std::string& name) {
  return initForDaemonWithName(name)->prepareVendingMachine();
}

std::shared_ptr<VESKNotificationCenter> VESKNotificationCenter::notificationServer() {
  return notificationServerWithName(kDaemonCenterName);
}

VESKNotificationCenter::Proxy VESKNotificationCenter::centerFromDaemonWithName(
    const std::string& name) {
  std::string why;
  GDBusConnection* bus = systemBus(&why);
  if (bus == nullptr) {
    VKLogging::logEventAndPrintVerbose("centerFromDaemonWithName failed: {}", why);
    return nullptr;
  }
  const std::optional<std::string> owner = nameOwner(bus, name);
  if (!owner) return nullptr;
  return std::make_shared<VESKNotificationCenterProxy>(*owner);
}

VESKNotificationCenter::Proxy VESKNotificationCenter::centerFromDaemon() {
  return centerFromDaemonWithName(kDaemonCenterName);
}

VESKNotificationCenter::Proxy VESKNotificationCenter::defaultCenter() {
  return defaultCenterForName(kDaemonCenterName);
}

VESKNotificationCenter::Proxy VESKNotificationCenter::defaultCenterForName(
    const std::string& name) {
  std::lock_guard<std::mutex> hold(sharedProxyLock);
  if (!sharedProxy) sharedProxy = centerFromDaemonWithName(name);
  return sharedProxy;
}

void VESKNotificationCenter::postToDefaultCenter(const std::string& name,
                                                 const std::optional<std::string>& object) {
  try {
    if (const Proxy proxy = defaultCenter())
      proxy->postNotificationNameOptions(name, object, {}, kPostOptions);
  } catch (...) {
    // Deliberately silent: callers of the class-level post do not care whether it arrived.
  }
}

void VESKNotificationCenter::handleProxyDisconnect() {
  std::lock_guard<std::mutex> hold(sharedProxyLock);
  sharedProxy.reset();
  sharedProxy = centerFromDaemon();
}

// --- Vending ---

std::shared_ptr<VESKNotificationCenter> VESKNotificationCenter::prepareVendingMachine() {
  auto reportFailure = [&] {
    std::fprintf(stderr, "Failed to register name (%s)\n", registeredName_.c_str());
    std::fflush(stderr);
    return shared_from_this();
  };
  GDBusConnection* bus = systemBus();
  if (bus == nullptr) return reportFailure();

  auto exported = std::make_unique<BusExport>();
  exported->bus = bus;
  exported->center = weak_from_this();
  exported->node = g_dbus_node_info_new_for_xml(kCenterIntrospection, nullptr);
  static const GDBusInterfaceVTable vtable = {
      [](GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* method,
         GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
        const std::shared_ptr<VESKNotificationCenter> center =
            static_cast<BusExport*>(data)->center.lock();
        if (!center) {
          g_dbus_method_invocation_return_dbus_error(
              invocation, "org.freedesktop.DBus.Error.Failed", "The center has gone");
          return;
        }
        center->handleBusCall(sender != nullptr ? sender : "", method, parameters, invocation);
      },
      nullptr,
      nullptr,
      {nullptr}};
  exported->registration =
      g_dbus_connection_register_object(bus, kDaemonCenterPath, exported->node->interfaces[0],
                                        &vtable, exported.get(), nullptr, nullptr);
  objectConnection_ = std::move(exported);

  GVariant* reply = callSync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", registeredName_.c_str(), 4u /* no queueing */), "(u)", -1, nullptr);
  guint32 result = 0;
  if (reply != nullptr) {
    g_variant_get(reply, "(u)", &result);
    g_variant_unref(reply);
  }
  // 1: now the primary owner; 4: already was.
  if (result != 1 && result != 4) return reportFailure();
  vended_ = true;
  return shared_from_this();
}

void VESKNotificationCenter::handleBusCall(const std::string& sender, const std::string& method,
                                           GVariant* parameters, void* invocationPointer) {
  auto* invocation = static_cast<GDBusMethodInvocation*>(invocationPointer);
  if (method == "PostNotification") {
    const gchar* name = nullptr;
    const gchar* object = nullptr;
    GVariant* info = nullptr;
    guint32 options = 0;
    g_variant_get(parameters, "(&s&s@a{sv}u)", &name, &object, &info, &options);
    const Dictionary userInfo = dictionaryFromVariant(info);
    g_variant_unref(info);
    // Delivered before the reply: the poster returns once its observers have run.
    postNotificationNameOptions(name, objectFromWire(object), userInfo, options);
  } else if (method == "AddDaemonObserver") {
    const gchar *name = nullptr, *selector = nullptr, *path = nullptr;
    g_variant_get(parameters, "(&s&s&o)", &name, &selector, &path);
    addDaemonObserver(remoteObserver(sender, path), selector, name);
  } else if (method == "RemoveDaemonObserver") {
    const gchar *name = nullptr, *path = nullptr;
    g_variant_get(parameters, "(&s&o)", &name, &path);
    removeDaemonObserver(remoteObserver(sender, path), name);
  }
  g_dbus_method_invocation_return_value(invocation, nullptr);
}

VESKNotificationCenter::Observer VESKNotificationCenter::remoteObserver(const std::string& sender,
                                                                        const std::string& path) {
  std::lock_guard<std::recursive_mutex> hold(lock_);
  Observer& observer = remoteObservers_[{sender, path}];
  if (!observer) observer = std::make_shared<RemoteObserver>(sender, path);
  return observer;
}

void VESKNotificationCenter::forgetUnusedRemoteObservers() {
  std::lock_guard<std::recursive_mutex> hold(lock_);
  std::erase_if(remoteObservers_, [](const auto& entry) { return entry.second.use_count() == 1; });
}

// --- Posting and delivery ---

void VESKNotificationCenter::postNotificationNameOptions(const std::string& name,
                                                         const std::optional<std::string>& object,
                                                         const Dictionary& userInfo,
                                                         unsigned options) {
  try {
    if (isDaemon_) {
      notifyObservers(name, object, userInfo);  // options mean nothing to the daemon
      return;
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
      Proxy proxy;
      try {
        std::unique_lock<std::mutex> hold(sharedProxyLock);
        if (!sharedProxy) sharedProxy = centerFromDaemon();
        proxy = sharedProxy;
        hold.unlock();
        if (!proxy) continue;
        proxy->postNotificationNameOptions(name, object, userInfo, options);
        return;
      } catch (const Exception&) {
        // Connect afresh on the next attempt, unless another thread did so already.
        std::lock_guard<std::mutex> hold(sharedProxyLock);
        if (sharedProxy == proxy) sharedProxy.reset();
      }
    }
    VKLogging::logEventAndPrintVerbose("Unable to send notification [{}] - daemon not available.",
                                       name);
  } catch (const std::exception& e) {
    VKLogging::logEventAndPrintVerbose("Unable to send notification [{}] - {}.", name, e.what());
  }
}

void VESKNotificationCenter::notifyObservers(const std::string& name,
                                             const std::optional<std::string>& object,
                                             const Dictionary& userInfo) {
  if (monitor_) monitor_(name, object, userInfo);
  // Observers are called without the lock held, so that one may add or remove observers, or
  // wait for a thread that does. The walk re-reads the count at every step.
  for (std::size_t i = 0;; ++i) {
    Record record;
    {
      std::lock_guard<std::recursive_mutex> hold(lock_);
      const auto found = daemonObservers_.find(name);
      if (found == daemonObservers_.end() || i >= found->second.size()) return;
      record = found->second[i];
    }
    try {
      if (!record.daemon->respondsToSelector(record.selector)) continue;
      record.daemon->performSelector(record.selector, userInfo);
    } catch (...) {
      const std::string what = describeCurrentException();
      {
        std::lock_guard<std::recursive_mutex> hold(lock_);
        const auto found = daemonObservers_.find(name);
        if (found != daemonObservers_.end() && i < found->second.size()) {
          found->second.erase(found->second.begin() + static_cast<std::ptrdiff_t>(i));
          --i;  // the record that moved into its place is not skipped (wraps, then ++ gives i)
        }
      }
      forgetUnusedRemoteObservers();
      // clang-format off
      VKLogging::logEventAndPrintVerbose("Exception thrown while trying to send a message to a daemon observer for notification {}: {}", name, what);
      // clang-format on
    }
  }
}

void VESKNotificationCenter::addDaemonObserver(const Observer& observer,
                                               const std::string& selector,
                                               const std::string& name) {
  if (!observer) return;
  std::lock_guard<std::recursive_mutex> hold(lock_);
  daemonObservers_[name].push_back(Record{observer, selector});
}

void VESKNotificationCenter::removeDaemonObserver(const Observer& observer,
                                                  const std::string& name) {
  {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    const auto found = daemonObservers_.find(name);
    if (found != daemonObservers_.end()) {
      std::erase_if(found->second,
                    [&](const Record& record) { return record.daemon.get() == observer.get(); });
    }
    if (found != daemonObservers_.end() && found->second.empty()) daemonObservers_.erase(found);
  }
  forgetUnusedRemoteObservers();
}

std::vector<std::pair<VESKNotificationCenter::Observer, std::string>>
VESKNotificationCenter::observersForName(const std::string& name) const {
  std::lock_guard<std::recursive_mutex> hold(lock_);
  std::vector<std::pair<Observer, std::string>> records;
  const auto found = daemonObservers_.find(name);
  if (found != daemonObservers_.end())
    for (const Record& record : found->second) records.emplace_back(record.daemon, record.selector);
  return records;
}

}  // namespace vesk
