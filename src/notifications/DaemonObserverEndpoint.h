#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "foundation/SelectorTarget.h"

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GMainContext GMainContext;

namespace vesk {

// Makes an object of this process an observer of the daemon's center: exports it on the bus
// as a DaemonObserver and registers it with the daemon for one notification name, again each
// time the daemon's name gets a new owner (the daemon restarted), never twice for one owner.
//
// A call to Perform is answered at once, with whether the target responds to the selector;
// the target then runs on a thread of its own, so the daemon is never held up by a long
// request and a later request (a kill) can reach a running one. Only the current owner of
// the daemon's name, or root, may call; anyone else is refused with an error and logged once.
//
// Bus callbacks run on the run loop of the thread that makes the endpoint.
class DaemonObserverEndpoint {
 public:
  DaemonObserverEndpoint(std::shared_ptr<SelectorTarget> target, std::string selector,
                         std::string notificationName, std::string daemonName);
  ~DaemonObserverEndpoint();
  DaemonObserverEndpoint(const DaemonObserverEndpoint&) = delete;
  DaemonObserverEndpoint& operator=(const DaemonObserverEndpoint&) = delete;

  // False, with the reason logged, when there was no bus to export on.
  bool isExported() const { return registration_ != 0; }
  const std::string& objectPath() const { return path_; }
  // The daemon connection this endpoint last registered with; "" before the first.
  std::string registeredOwner() const;

 private:
  // What bus callbacks hold: the endpoint while it lives, nothing once it is gone, so a call
  // already queued when the endpoint goes finds nothing to run.
  struct Handle {
    std::mutex lock;
    DaemonObserverEndpoint* endpoint = nullptr;  // guarded by lock

    // The endpoint a callback's data (a std::shared_ptr<Handle>*) names, or null once it is
    // gone. The endpoint goes only on the thread the callbacks run on, so it cannot go while
    // the caller uses it.
    static DaemonObserverEndpoint* endpointOf(void* data) {
      const std::shared_ptr<Handle> handle = *static_cast<std::shared_ptr<Handle>*>(data);
      std::lock_guard<std::mutex> hold(handle->lock);
      return handle->endpoint;
    }
  };
  void registerWith(const std::string& owner);
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
  unsigned watch_ = 0;
  void* node_ = nullptr;
  std::shared_ptr<Handle> handle_;

  mutable std::mutex lock_;
  std::string registeredOwner_;           // guarded by lock_
  std::set<std::string> refusedSenders_;  // guarded by lock_
};

}  // namespace vesk
