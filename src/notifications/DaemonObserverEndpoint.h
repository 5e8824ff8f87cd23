#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "foundation/SelectorTarget.h"
#include "foundation/WorkQueue.h"
#include "notifications/DaemonPresence.h"

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GMainContext GMainContext;

namespace vesk {

// Makes an object of this process an observer of the daemon's center: exports it on the bus
// as a DaemonObserver and registers it with the daemon for one notification name: once per
// daemon (again when the daemon's name gets a new owner), and again when the daemon says it
// dropped this observer (it did not answer in time). Registration never waits for the daemon,
// which may be calling this very observer at that moment.
//
// A call to Perform is answered at once, with whether the target responds to the selector;
// the target then runs on a thread of its own (at most kRequestThreads at once, the rest
// queued in order), so the daemon is never held up by a long request and a later request (a
// kill) can reach a running one. Only the current owner of the daemon's name, or root, may
// call; anyone else is refused with an error and logged once.
//
// Bus callbacks run on the run loop of the thread that makes the endpoint, which must run its
// loop; the endpoint must be destroyed on that thread, whose loop it runs a moment then for
// GDBus to let go of what its callbacks held.
class DaemonObserverEndpoint {
 public:
  static constexpr std::size_t kRequestThreads = 8;

  DaemonObserverEndpoint(std::shared_ptr<SelectorTarget> target, std::string selector,
                         std::string notificationName, std::string daemonName);
  ~DaemonObserverEndpoint();
  DaemonObserverEndpoint(const DaemonObserverEndpoint&) = delete;
  DaemonObserverEndpoint& operator=(const DaemonObserverEndpoint&) = delete;

  // False, with the reason logged, when there was no bus to export on.
  bool isExported() const { return registration_ != 0; }
  const std::string& objectPath() const { return path_; }
  // The daemon connection this endpoint is registered with; "" before the first
  // registration, and while it registers again.
  std::string registeredOwner() const;

 private:
  // What bus callbacks hold: the endpoint while it lives, nothing once it is gone, so a call
  // already queued when the endpoint goes finds nothing to run.
  struct Handle {
    std::mutex lock;
    DaemonObserverEndpoint* endpoint = nullptr;  // guarded by lock
    // How many copies GDBus holds for callbacks; it frees them on the endpoint's loop.
    std::atomic<int> heldByBus{0};

    // The endpoint a callback's data (a std::shared_ptr<Handle>*) names, or null once it is
    // gone. The endpoint goes only on the thread the callbacks run on, so it cannot go while
    // the caller uses it.
    static DaemonObserverEndpoint* endpointOf(const std::shared_ptr<Handle>& handle) {
      std::lock_guard<std::mutex> hold(handle->lock);
      return handle->endpoint;
    }
    static DaemonObserverEndpoint* endpointOf(void* data) {
      return endpointOf(*static_cast<std::shared_ptr<Handle>*>(data));
    }
  };
  static constexpr double kRegistrationRetrySeconds = 5;

  void daemonChanged(const std::string& owner);
  std::string currentOwner() const;
  void registerWith(const std::string& owner);
  void registered(const std::string& owner, const std::string& failure);
  void dropped(const std::string& sender, const std::string& name, const std::string& path);
  void perform(const std::string& sender, const std::string& selector, void* parameters,
               void* invocation);
  bool mayCall(const std::string& sender, uid_t* uid);

  const std::shared_ptr<SelectorTarget> target_;
  const std::string selector_;
  const std::string notificationName_;
  const std::string daemonName_;
  std::string path_;
  GDBusConnection* bus_ = nullptr;
  unsigned registration_ = 0;
  unsigned droppedSubscription_ = 0;
  void* node_ = nullptr;
  GMainContext* context_ = nullptr;  // the loop of the thread that made the endpoint
  std::shared_ptr<Handle> handle_;
  std::unique_ptr<DaemonPresence> presence_;
  WorkQueue requests_{kRequestThreads, 1000};

  // The rest is touched on the endpoint's thread, and read by registeredOwner from any.
  mutable std::mutex lock_;
  std::string owner_;                     // guarded by lock_: the daemon's current owner
  std::string registeredOwner_;           // guarded by lock_
  bool registering_ = false;              // guarded by lock_: a registration is under way
  std::set<std::string> refusedSenders_;  // guarded by lock_
  std::set<std::string> failedOwners_;    // guarded by lock_: registration failures logged
};

}  // namespace vesk
