#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace vesk {

// Which user is behind each connection to the system bus. A signal does not say who sent it,
// and by the time its handler runs a short-lived sender may have gone, taking the answer with
// it; so the user of every connection is asked the moment the bus announces it, on a thread
// of its own that nothing else holds up, and kept for a minute after it leaves.
class BusUsers {
 public:
  static BusUsers& shared();

  // Starts watching, once; returns when the watch is in place. False when there is no bus.
  bool start();
  // The user of `sender`: as learnt when it connected, else asked now; nullopt when it has
  // gone without being seen.
  std::optional<uid_t> uidOf(const std::string& sender);

 private:
  BusUsers() = default;
  void learn(const std::string& sender, uid_t uid);
  void forget(const std::string& sender);

  std::mutex lock_;
  bool started_ = false;               // guarded by lock_
  std::map<std::string, uid_t> uids_;  // guarded by lock_
};

}  // namespace vesk
