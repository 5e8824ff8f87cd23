#include "notifications/DistributedNotificationCenter.h"

#include <gio/gio.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "foundation/RunLoop.h"
#include "logging/VKLogging.h"
#include "notifications/DBusValue.h"
#include "notifications/SystemBus.h"
#include "platform/ProcessSecurity.h"

namespace vesk {
namespace {

// How many senders' verdicts are kept before they are asked again.
constexpr std::size_t kKnownSendersLimit = 1024;

}  // namespace

struct DistributedNotificationCenter::Observer {
  std::optional<std::string> name;
  Handler handler;
  GMainContext* context = nullptr;  // a reference of our own: where the handler runs
  GDBusConnection* bus = nullptr;   // a reference of our own, while subscribed
  guint subscription = 0;
  std::atomic<bool> active{true};

  ~Observer() {
    if (subscription != 0) g_dbus_connection_signal_unsubscribe(bus, subscription);
    if (bus != nullptr) g_object_unref(bus);
    if (context != nullptr) g_main_context_unref(context);
  }
};

DistributedNotificationCenter& DistributedNotificationCenter::defaultCenter() {
  static DistributedNotificationCenter* center = new DistributedNotificationCenter();
  return *center;
}

DistributedNotificationCenter::ObserverId DistributedNotificationCenter::addObserver(
    const std::optional<std::string>& name, Handler handler) {
  auto observer = std::make_shared<Observer>();
  observer->name = name;
  observer->handler = std::move(handler);
  observer->context = g_main_context_ref(RunLoop::current().context());

  std::string why;
  if (GDBusConnection* bus = systemBus(&why)) {
    observer->bus = static_cast<GDBusConnection*>(g_object_ref(bus));
    struct Data {
      DistributedNotificationCenter* center;
      std::weak_ptr<Observer> observer;
    };
    // Subscribed from this thread, so GDBus calls back on this thread's run loop. Both paths
    // are heard; which one a notification came on decides how its sender is checked.
    observer->subscription = g_dbus_connection_signal_subscribe(
        bus, nullptr, kDistributedInterface, "Notification", nullptr,
        name ? name->c_str() : nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const gchar* sender, const gchar* path, const gchar*, const gchar*,
           GVariant* parameters, gpointer data) {
          auto* subscription = static_cast<Data*>(data);
          const std::shared_ptr<Observer> observer = subscription->observer.lock();
          if (!observer || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ssa{sv})"))) return;
          const bool rootPath = std::strcmp(path, kDistributedRootPath) == 0;
          if (!rootPath && std::strcmp(path, kDistributedPath) != 0) return;
          const gchar* name = nullptr;
          const gchar* object = nullptr;
          GVariant* info = nullptr;
          g_variant_get(parameters, "(&s&s@a{sv})", &name, &object, &info);
          const Dictionary userInfo = dictionaryFromVariant(info);
          g_variant_unref(info);
          subscription->center->received(observer, sender != nullptr ? sender : "", rootPath, name,
                                         objectFromWire(object), userInfo);
        },
        new Data{this, observer}, [](gpointer data) { delete static_cast<Data*>(data); });
    // The subscription's match rule goes to the bus without a reply; one round trip after it
    // means the bus has it, so a notification posted once this returns is not missed.
    waitForBus(bus);
  } else {
    VKLogging::logEventAndPrintVerbose("Unable to observe distributed notifications: {}", why);
  }

  std::lock_guard<std::mutex> hold(lock_);
  const ObserverId id = nextId_++;
  observers_.emplace(id, std::move(observer));
  return id;
}

void DistributedNotificationCenter::removeObserver(ObserverId id) {
  std::shared_ptr<Observer> observer;
  {
    std::lock_guard<std::mutex> hold(lock_);
    const auto found = observers_.find(id);
    if (found == observers_.end()) return;
    observer = std::move(found->second);
    observers_.erase(found);
  }
  observer->active = false;  // deliveries already queued for it are dropped
}

bool DistributedNotificationCenter::postNotificationName(const std::string& name,
                                                         const std::optional<std::string>& object,
                                                         const Dictionary& userInfo) {
  std::string why;
  GDBusConnection* bus = systemBus(&why);
  if (bus != nullptr) {
    GVariant* parameters = g_variant_ref_sink(g_variant_new(
        "(ss@a{sv})", name.c_str(), object.value_or("").c_str(), variantFromDictionary(userInfo)));
    GError* error = nullptr;
    bool sent = false;
    why = tooLargeToPost(parameters);
    if (why.empty()) {
      sent = g_dbus_connection_emit_signal(
          bus, nullptr, systemBusIsRoot() ? kDistributedRootPath : kDistributedPath,
          kDistributedInterface, "Notification", parameters, &error);
      if (error != nullptr) why = error->message;
      g_clear_error(&error);
    }
    g_variant_unref(parameters);
    if (sent) return true;
  }
  VKLogging::logEventAndPrintVerbose("Unable to post distributed notification [{}] - {}.", name,
                                     why);
  return false;
}

void DistributedNotificationCenter::deliverLocally(const std::string& name,
                                                   const std::optional<std::string>& object,
                                                   const Dictionary& userInfo) {
  std::vector<std::shared_ptr<Observer>> observers;
  {
    std::lock_guard<std::mutex> hold(lock_);
    for (const auto& entry : observers_)
      if (!entry.second->name || *entry.second->name == name) observers.push_back(entry.second);
  }
  for (const std::shared_ptr<Observer>& observer : observers) {
    // Observers whose loop this thread is running hear it now, so that events the session
    // reports one after the other keep their order whichever center carries them; the others
    // at their loop's next turn.
    if (g_main_context_is_owner(observer->context)) {
      if (observer->active) observer->handler(name, object, userInfo);
      continue;
    }
    RunLoop::postTo(observer->context, [observer, name, object, userInfo] {
      if (observer->active) observer->handler(name, object, userInfo);
    });
  }
}

void DistributedNotificationCenter::received(const std::shared_ptr<Observer>& observer,
                                             const std::string& sender, bool fromRootPath,
                                             const std::string& name,
                                             const std::optional<std::string>& object,
                                             const Dictionary& userInfo) {
  if (!observer->active) return;
  // The bus lets only root send on the root path.
  if (!fromRootPath && !senderAllowed(sender)) return;
  observer->handler(name, object, userInfo);
}

bool DistributedNotificationCenter::senderAllowed(const std::string& sender) {
  const std::uint64_t generation = systemBusGeneration();
  {
    std::lock_guard<std::mutex> hold(lock_);
    // A connection's user never changes, and unique names are not reused on one bus; but a
    // new bus starts its names again, so what was learnt of the old one is forgotten.
    if (sendersGeneration_ != generation || senders_.size() >= kKnownSendersLimit) {
      senders_.clear();
      sendersGeneration_ = generation;
    }
    const auto known = senders_.find(sender);
    if (known != senders_.end()) return known->second;
  }
  GDBusConnection* bus = systemBus();
  const std::optional<uid_t> found =
      bus != nullptr ? connectionUnixUser(bus, sender) : std::optional<uid_t>();
  const long uid = found ? static_cast<long>(*found) : -1L;
  // The user who started the agent, which may have made itself root since.
  const bool allowed = uid == 0 || uid == static_cast<long>(startingUserId());
  bool first = false;
  {
    std::lock_guard<std::mutex> hold(lock_);
    senders_.emplace(sender, allowed);
    if (!allowed) first = refusedUsers_.insert(uid).second;
  }
  if (first)
    VKLogging::logEventAndPrintVerbose(
        "Dropped distributed notifications from {} (uid {}): only root and this user may post",
        sender, uid);
  return allowed;
}

}  // namespace vesk
