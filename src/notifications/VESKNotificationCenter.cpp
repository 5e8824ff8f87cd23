#include "notifications/VESKNotificationCenter.h"

#include <gio/gio.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "foundation/Exception.h"
#include "foundation/RunLoop.h"
#include "foundation/WorkQueue.h"
#include "logging/VKLogging.h"
#include "notifications/DBusValue.h"

namespace vesk {
namespace {

// How long a client's call may wait for the daemon. The daemon answers once its own
// observers have run; a daemon that takes longer has failed this post, but has not gone.
std::atomic<int> callTimeoutMs{25000};

// How many posts may wait for the daemon; more than that, and the newest are dropped.
constexpr std::size_t kMaxWaitingPosts = 10000;

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
    "  <signal name='ObserverDropped'>"
    "   <arg type='s' name='name'/><arg type='o' name='observer'/>"
    "  </signal>"
    " </interface>"
    "</node>";

// The process-wide handle on the daemon's center. The agent touches it from its main thread;
// the lock makes posts from other threads safe too.
std::mutex sharedProxyLock;
VESKNotificationCenter::Proxy sharedProxy;  // guarded by sharedProxyLock

// The thread that takes the client role's posts to the daemon, one after the other.
WorkQueue& postingQueue() {
  static WorkQueue* queue = new WorkQueue(1, kMaxWaitingPosts);
  return *queue;
}

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

  // The call, waiting for its answer; the center itself uses performWithoutWaiting.
  void performSelector(std::string_view selector, const Dictionary& userInfo) override {
    std::string why;
    GDBusConnection* bus = systemBus(&why);
    if (bus == nullptr) throw Exception("NSObjectInaccessibleException", why);
    GVariant* reply = callSync(bus, owner_, path_.c_str(), kDaemonObserverInterface, "Perform",
                               parameters(selector, userInfo), "(b)", callTimeoutMs, &why);
    if (reply == nullptr) throw Exception("NSObjectInaccessibleException", why);
    g_variant_unref(reply);  // an observer that does not respond is skipped, as here
  }

  // Sends the call and returns; `failed` runs on this thread's loop with the reason if the
  // call fails or is not answered within `timeoutMs`.
  void performWithoutWaiting(std::string_view selector, const Dictionary& userInfo, int timeoutMs,
                             std::function<void(const std::string&)> failed) {
    std::string why;
    GDBusConnection* bus = systemBus(&why);
    if (bus == nullptr) {
      failed(why);
      return;
    }
    using Failed = std::function<void(const std::string&)>;
    g_dbus_connection_call(
        bus, owner_.c_str(), path_.c_str(), kDaemonObserverInterface, "Perform",
        parameters(selector, userInfo), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
        timeoutMs, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          const std::unique_ptr<Failed> failed(static_cast<Failed*>(data));
          GError* error = nullptr;
          GVariant* reply =
              g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
          if (reply != nullptr) {
            g_variant_unref(reply);
            return;
          }
          const std::string why = error != nullptr ? error->message : "no reply";
          g_clear_error(&error);
          (*failed)(why);
        },
        new Failed(std::move(failed)));
  }

  const std::string& owner() const { return owner_; }
  const std::string& path() const { return path_; }

 private:
  static GVariant* parameters(std::string_view selector, const Dictionary& userInfo) {
    return g_variant_new("(s@a{sv})", std::string(selector).c_str(),
                         variantFromDictionary(userInfo));
  }

  const std::string owner_;
  const std::string path_;
};

// The center's registration on the bus.
struct VESKNotificationCenter::BusExport {
  GDBusConnection* bus = nullptr;
  guint registration = 0;
  GDBusNodeInfo* node = nullptr;
  GMainContext* context = nullptr;  // the loop that serves the bus: calls to agents go from it
  std::weak_ptr<VESKNotificationCenter> center;

  ~BusExport() {
    if (registration != 0) g_dbus_connection_unregister_object(bus, registration);
    if (node != nullptr) g_dbus_node_info_unref(node);
  }
};

// A post of the client role on its way to the posting thread.
struct VESKNotificationCenter::Post {
  std::string name;
  std::optional<std::string> object;
  Dictionary userInfo;
  unsigned options = kPostOptions;
  bool quiet = false;  // the class-level post: one attempt, nothing said
};

// --- The proxy ---

void VESKNotificationCenterProxy::call(const char* method, GVariant* parameters) {
  std::string why;
  GDBusConnection* bus = systemBus(&why);
  if (bus != nullptr && systemBusGeneration() != generation_) {
    bus = nullptr;
    why = "the daemon was on a bus that has gone";
  }
  if (bus == nullptr) {
    g_variant_unref(g_variant_ref_sink(parameters));
    throw Exception("NSObjectInaccessibleException", why);
  }
  g_variant_ref_sink(parameters);
  if (const std::string tooLarge = tooLargeToPost(parameters); !tooLarge.empty()) {
    g_variant_unref(parameters);
    throw Exception("NSInvalidArgumentException", tooLarge);
  }
  GVariant* reply = callSync(bus, owner_, kDaemonCenterPath, kDaemonCenterInterface, method,
                             parameters, "()", callTimeoutMs, &why);
  g_variant_unref(parameters);
  if (reply == nullptr) throw Exception("NSObjectInaccessibleException", why);
  g_variant_unref(reply);
}

bool VESKNotificationCenterProxy::hasGone() const {
  GDBusConnection* bus = systemBus();
  return bus == nullptr || systemBusGeneration() != generation_ ||
         !nameOwner(bus, owner_).has_value();
}

void VESKNotificationCenterProxy::setCallTimeout(double seconds) {
  callTimeoutMs = static_cast<int>(seconds * 1000);
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
  // Deliberately silent: callers of the class-level post do not care whether it arrived.
  postingQueue().post([post = Post{name, object, {}, kPostOptions, true}] { sendToDaemon(post); });
}

void VESKNotificationCenter::handleProxyDisconnect() {
  std::lock_guard<std::mutex> hold(sharedProxyLock);
  sharedProxy.reset();
  sharedProxy = centerFromDaemon();
}

bool VESKNotificationCenter::waitForPosts(double seconds) {
  return postingQueue().waitUntilIdle(seconds);
}

std::vector<std::string> VESKNotificationCenter::piecesForPosting(std::string_view text,
                                                                  std::size_t maxBytes) {
  std::vector<std::string> pieces;
  maxBytes = std::max<std::size_t>(maxBytes, 4);  // room for the longest character
  while (!text.empty()) {
    std::size_t cut = std::min(maxBytes, text.size());
    // Back up over continuation bytes, so that a character is never split.
    while (cut < text.size() && cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
      --cut;
    if (cut == 0) cut = std::min(maxBytes, text.size());  // not UTF-8: cut where it falls
    pieces.emplace_back(text.substr(0, cut));
    text.remove_prefix(cut);
  }
  return pieces;
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
  exported->context = RunLoop::current().context();
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
    addRemoteObserver(sender, path, selector, name);
  } else if (method == "RemoveDaemonObserver") {
    const gchar *name = nullptr, *path = nullptr;
    g_variant_get(parameters, "(&s&o)", &name, &path);
    removeDaemonObserver(remoteObserver(sender, path), name);
  }
  g_dbus_method_invocation_return_value(invocation, nullptr);
}

void VESKNotificationCenter::addRemoteObserver(const std::string& sender, const std::string& path,
                                               const std::string& selector,
                                               const std::string& name) {
  const Observer observer = remoteObserver(sender, path);
  {
    // An agent registers once per daemon, and again when it was dropped: never twice.
    std::lock_guard<std::recursive_mutex> hold(lock_);
    const auto found = daemonObservers_.find(name);
    if (found != daemonObservers_.end() &&
        std::any_of(found->second.begin(), found->second.end(), [&](const Record& record) {
          return record.daemon == observer && record.selector == selector;
        }))
      return;
  }
  addDaemonObserver(observer, selector, name);
  const std::optional<uid_t> uid = connectionUnixUser(objectConnection_->bus, sender);
  VKLogging::logEvent("Daemon observer {} of {} (uid {}) registered for {}", path, sender,
                      uid ? static_cast<long>(*uid) : -1L, name);
}

VESKNotificationCenter::Observer VESKNotificationCenter::remoteObserver(const std::string& sender,
                                                                        const std::string& path) {
  std::lock_guard<std::recursive_mutex> hold(lock_);
  Observer& observer = remoteObservers_[{sender, path}];
  if (!observer) observer = std::make_shared<RemoteObserver>(sender, path);
  if (!connectionWatches_.contains(sender)) {
    // A record belongs to its connection: when the agent leaves the bus, its records go too.
    struct Watch {
      std::weak_ptr<VESKNotificationCenter> center;
      std::string sender;
    };
    connectionWatches_[sender] = g_bus_watch_name_on_connection(
        objectConnection_->bus, sender.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
        [](GDBusConnection*, const gchar*, gpointer data) {
          const auto* watch = static_cast<Watch*>(data);
          if (const auto center = watch->center.lock()) center->forgetConnection(watch->sender);
        },
        new Watch{weak_from_this(), sender},
        [](gpointer data) { delete static_cast<Watch*>(data); });
  }
  return observer;
}

void VESKNotificationCenter::forgetConnection(const std::string& sender) {
  std::lock_guard<std::recursive_mutex> hold(lock_);
  for (auto& [name, records] : daemonObservers_) {
    std::erase_if(records, [&](const Record& record) {
      const auto* remote = dynamic_cast<const RemoteObserver*>(record.daemon.get());
      return remote != nullptr && remote->owner() == sender;
    });
  }
  std::erase_if(daemonObservers_, [](const auto& entry) { return entry.second.empty(); });
  std::erase_if(remoteObservers_, [&](const auto& entry) { return entry.first.first == sender; });
  const auto watch = connectionWatches_.find(sender);
  if (watch != connectionWatches_.end()) {
    // Not from inside the watch's own callback, which this may be.
    RunLoop::postTo(objectConnection_->context, [id = watch->second] { g_bus_unwatch_name(id); });
    connectionWatches_.erase(watch);
  }
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
    if (!postingQueue().post(
            [post = Post{name, object, userInfo, options, false}] { sendToDaemon(post); }))
      VKLogging::logEventAndPrintVerbose(
          "Unable to send notification [{}] - too many notifications are waiting for the "
          "daemon.",
          name);
  } catch (const std::exception& e) {
    VKLogging::logEventAndPrintVerbose("Unable to send notification [{}] - {}.", name, e.what());
  }
}

void VESKNotificationCenter::sendToDaemon(const Post& post) {
  if (post.quiet) {
    try {
      if (const Proxy proxy = defaultCenter())
        proxy->postNotificationNameOptions(post.name, post.object, {}, post.options);
    } catch (...) {
    }
    return;
  }
  try {
    for (int attempt = 0; attempt < 2; ++attempt) {
      Proxy proxy;
      try {
        std::unique_lock<std::mutex> hold(sharedProxyLock);
        if (!sharedProxy) sharedProxy = centerFromDaemon();
        proxy = sharedProxy;
        hold.unlock();
        if (!proxy) continue;
        proxy->postNotificationNameOptions(post.name, post.object, post.userInfo, post.options);
        return;
      } catch (const Exception& failure) {
        {
          // Connect afresh next time, unless another thread did so already.
          std::lock_guard<std::mutex> hold(sharedProxyLock);
          if (sharedProxy == proxy) sharedProxy.reset();
        }
        // Only a daemon that has gone is tried again: one that was slow may still deliver
        // this post, and would deliver it twice.
        if (proxy && !proxy->hasGone()) {
          VKLogging::logEventAndPrintVerbose("Unable to send notification [{}] - {}.", post.name,
                                             failure.reason());
          return;
        }
      }
    }
    VKLogging::logEventAndPrintVerbose("Unable to send notification [{}] - daemon not available.",
                                       post.name);
  } catch (const std::exception& e) {
    VKLogging::logEventAndPrintVerbose("Unable to send notification [{}] - {}.", post.name,
                                       e.what());
  }
}

void VESKNotificationCenter::notifyObservers(const std::string& name,
                                             const std::optional<std::string>& object,
                                             const Dictionary& userInfo) {
  if (monitor_) monitor_(name, object, userInfo);
  // Observers are called without the lock held, so that one may add or remove observers, or
  // wait for a thread that does. Each step takes the first record registered after the one
  // called last: records added meanwhile are called too, and one removed meanwhile (by a
  // failure or by itself) costs the others nothing.
  std::uint64_t last = 0;
  while (true) {
    Record record;
    {
      std::lock_guard<std::recursive_mutex> hold(lock_);
      const auto found = daemonObservers_.find(name);
      if (found == daemonObservers_.end()) return;
      const auto next =
          std::find_if(found->second.begin(), found->second.end(),
                       [&](const Record& candidate) { return candidate.serial > last; });
      if (next == found->second.end()) return;
      record = *next;
    }
    last = record.serial;
    if (dynamic_cast<RemoteObserver*>(record.daemon.get()) != nullptr) {
      deliverToRemote(name, record, userInfo);
      continue;
    }
    try {
      if (!record.daemon->respondsToSelector(record.selector)) continue;
      record.daemon->performSelector(record.selector, userInfo);
    } catch (...) {
      const std::string what = describeCurrentException();
      dropRecord(name, record.serial);
      // clang-format off
      VKLogging::logEventAndPrintVerbose("Exception thrown while trying to send a message to a daemon observer for notification {}: {}", name, what);
      // clang-format on
    }
  }
}

void VESKNotificationCenter::deliverToRemote(const std::string& name, const Record& record,
                                             const Dictionary& userInfo) {
  // From the loop that serves the bus, whatever thread posted: that is where the answers come.
  RunLoop::postTo(objectConnection_->context, [weak = weak_from_this(), name, record, userInfo] {
    const auto center = weak.lock();
    if (!center) return;
    auto* remote = static_cast<RemoteObserver*>(record.daemon.get());
    remote->performWithoutWaiting(
        record.selector, userInfo, center->observerTimeoutMs_,
        [weak, name, serial = record.serial, owner = remote->owner(),
         path = remote->path()](const std::string& why) {
          const auto center = weak.lock();
          // Said once, however many calls to it were under way when it failed.
          if (!center || !center->dropRecord(name, serial)) return;
          // clang-format off
          VKLogging::logEventAndPrintVerbose("Exception thrown while trying to send a message to a daemon observer for notification {}: {}", name, why);
          // clang-format on
          // Tell the agent, which registers again if it is still there (it may only have
          // been slow).
          g_dbus_connection_emit_signal(center->objectConnection_->bus, owner.c_str(),
                                        kDaemonCenterPath, kDaemonCenterInterface,
                                        "ObserverDropped",
                                        g_variant_new("(so)", name.c_str(), path.c_str()), nullptr);
        });
  });
}

bool VESKNotificationCenter::dropRecord(const std::string& name, std::uint64_t serial) {
  bool dropped = false;
  {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    const auto found = daemonObservers_.find(name);
    if (found != daemonObservers_.end())
      dropped = std::erase_if(found->second,
                              [&](const Record& record) { return record.serial == serial; }) > 0;
  }
  forgetUnusedRemoteObservers();
  return dropped;
}

void VESKNotificationCenter::addDaemonObserver(const Observer& observer,
                                               const std::string& selector,
                                               const std::string& name) {
  if (!observer) return;
  std::lock_guard<std::recursive_mutex> hold(lock_);
  daemonObservers_[name].push_back(Record{observer, selector, nextSerial_++});
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
