#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "foundation/Value.h"

typedef struct _GMainContext GMainContext;

namespace vesk {

// The platform's distributed notifications: a post is a signal on the system bus that every
// process observing that name receives. Notifications from a sender that is neither root nor
// this process's own user are dropped (and logged once per sender): no other user steers the
// agent through them.
//
// Handlers run on the run loop of the thread that registered them. Any thread may post,
// register or remove.
class DistributedNotificationCenter {
 public:
  using Handler =
      std::function<void(const std::string& name, const std::optional<std::string>& object,
                         const Dictionary& userInfo)>;
  using ObserverId = std::uint64_t;

  static DistributedNotificationCenter& defaultCenter();

  // Observes `name`, or every name when it is nullopt. Once it returns, the bus routes such
  // notifications here.
  ObserverId addObserver(const std::optional<std::string>& name, Handler handler);
  void removeObserver(ObserverId observer);

  // Emits the notification on the bus; false, logged, when there is no bus.
  bool postNotificationName(const std::string& name, const std::optional<std::string>& object,
                            const Dictionary& userInfo = {});
  // Hands a notification straight to this process's observers of its name, without the bus:
  // how the session layer delivers the events the system reports under platform names.
  void deliverLocally(const std::string& name, const std::optional<std::string>& object,
                      const Dictionary& userInfo);

 private:
  struct Observer;

  DistributedNotificationCenter() = default;
  // Called on the observer's thread for a signal from the bus.
  void received(const std::shared_ptr<Observer>& observer, const std::string& sender,
                const std::string& name, const std::optional<std::string>& object,
                const Dictionary& userInfo);
  bool senderAllowed(const std::string& sender);

  std::mutex lock_;
  ObserverId nextId_ = 1;                                      // guarded by lock_
  std::map<ObserverId, std::shared_ptr<Observer>> observers_;  // guarded by lock_
  std::map<std::string, bool> senders_;  // guarded by lock_: whether each sender may post
};

}  // namespace vesk
