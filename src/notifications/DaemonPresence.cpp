#include "notifications/DaemonPresence.h"

#include <gio/gio.h>

#include <mutex>

#include "foundation/RunLoop.h"
#include "logging/VKLogging.h"
#include "notifications/SystemBus.h"

namespace vesk {

// What the watch's callbacks hold: the handler while the object lives.
struct DaemonPresence::Shared {
  std::mutex lock;
  Handler handler;  // guarded by lock; empty once the object has gone

  void tell(const std::optional<std::string>& owner) {
    Handler current;
    {
      std::lock_guard<std::mutex> hold(lock);
      current = handler;
    }
    if (current) current(owner);
  }
};

DaemonPresence::DaemonPresence(Handler handler, const std::string& daemonName)
    : shared_(std::make_shared<Shared>()) {
  shared_->handler = std::move(handler);
  // The loop of this thread is where GDBus calls back: it must be this thread's default.
  RunLoop::current();
  std::string why;
  GDBusConnection* bus = systemBus(&why);
  if (bus == nullptr) {
    VKLogging::logEventAndPrintVerbose("Unable to watch for the daemon: {}", why);
    return;
  }
  using SharedPtr = std::shared_ptr<Shared>;
  watch_ = g_bus_watch_name_on_connection(
      bus, daemonName.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar* owner, gpointer data) {
        (*static_cast<SharedPtr*>(data))->tell(std::string(owner));
      },
      [](GDBusConnection*, const gchar*, gpointer data) {
        (*static_cast<SharedPtr*>(data))->tell(std::nullopt);
      },
      new SharedPtr(shared_), [](gpointer data) { delete static_cast<SharedPtr*>(data); });
}

DaemonPresence::~DaemonPresence() {
  {
    std::lock_guard<std::mutex> hold(shared_->lock);
    shared_->handler = nullptr;
  }
  if (watch_ != 0) g_bus_unwatch_name(watch_);
}

}  // namespace vesk
