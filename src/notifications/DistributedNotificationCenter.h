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
// process observing that name receives. Only root and this process's own (real) user may
// steer the agent through them; anything else is dropped and logged once per user.
//
// A signal does not say who sent it, and asking the bus afterwards fails once a short-lived
// sender has gone. So root posts on a path of its own that the bus lets no one else send on
// (kDistributedRootPath, in the client's bus policy): what arrives there is root's without
// asking. Everyone else posts on the shared path, and the receiver asks the bus who the sender
// is; a sender that is not root must therefore stay connected until its notifications have
// been handled.
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

  // Emits the notification on the bus (on the root path when the bus knows this process as
  // root); false, logged, when there is no bus or it is larger than kMaxPostBytes. A process
  // that ends right after flushes its connection first.
  bool postNotificationName(const std::string& name, const std::optional<std::string>& object,
                            const Dictionary& userInfo = {});
  // Hands a notification straight to this process's observers of its name, without the bus:
  // how the session layer delivers the events the system reports under platform names.
  // Observers whose loop the calling thread is running are called before it returns; the
  // others at the next turn of their thread's loop.
  void deliverLocally(const std::string& name, const std::optional<std::string>& object,
                      const Dictionary& userInfo);

 private:
  struct Observer;

  DistributedNotificationCenter() = default;
  // Called on the observer's thread for a signal from the bus.
  void received(const std::shared_ptr<Observer>& observer, const std::string& sender,
                bool fromRootPath, const std::string& name,
                const std::optional<std::string>& object, const Dictionary& userInfo);
  bool senderAllowed(const std::string& sender);

  std::mutex lock_;
  ObserverId nextId_ = 1;                                      // guarded by lock_
  std::map<ObserverId, std::shared_ptr<Observer>> observers_;  // guarded by lock_
  // What the bus said of each sender on the shared path, for the connection of one
  // generation; bounded, since every new sender adds one.
  std::uint64_t sendersGeneration_ = 0;  // guarded by lock_
  std::map<std::string, bool> senders_;  // guarded by lock_: whether each sender may post
  std::set<long> refusedUsers_;          // guarded by lock_: already logged
};

}  // namespace vesk
