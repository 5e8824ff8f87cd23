#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "notifications/SystemBus.h"

namespace vesk {

// Tells when the daemon's center is on the bus: its name's owner when it appears, nullopt when
// it vanishes, and both, in that order, when another daemon takes its place. Told once at the
// start with how things stand. The handler runs on the run loop of the thread that made this
// object, never after it is destroyed there.
class DaemonPresence {
 public:
  using Handler = std::function<void(const std::optional<std::string>& owner)>;

  // False from isWatching, logged, when there is no bus.
  explicit DaemonPresence(Handler handler, const std::string& daemonName = kDaemonCenterName);
  ~DaemonPresence();
  DaemonPresence(const DaemonPresence&) = delete;
  DaemonPresence& operator=(const DaemonPresence&) = delete;

  bool isWatching() const { return watch_ != 0; }

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
  unsigned watch_ = 0;
};

}  // namespace vesk
