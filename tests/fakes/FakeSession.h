#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/RunLoop.h"
#include "platform/DesktopApplications.h"
#include "platform/FrontWindow.h"
#include "platform/ProcessEvents.h"

namespace vesk::test {

// Process events the test hands over itself.
class FakeProcessEvents : public ProcessEventSource {
 public:
  void start(Handler handler) override { handler_ = std::move(handler); }
  std::string mode() const override { return "fake"; }
  std::uint64_t rescans() const override { return 0; }

  void exec(pid_t pid, uid_t uid, const std::string& path) {
    handler_(ProcessEvent{ProcessEvent::Kind::kExec, pid, uid, path, nullptr, {}});
  }
  void exit(pid_t pid) {
    handler_(ProcessEvent{ProcessEvent::Kind::kExit, pid, 0, {}, nullptr, {}});
  }

 private:
  Handler handler_;
};

// .desktop files by application ID.
class FakeDesktopApplications : public DesktopApplications {
 public:
  std::optional<std::string> displayName(const std::string& id) override {
    const auto found = names.find(id);
    return found == names.end() ? std::nullopt : std::optional<std::string>(found->second);
  }
  std::map<std::string, std::string> names;
};

// A front window the test moves.
class FakeFrontWindow : public FrontWindow {
 public:
  std::optional<pid_t> activeProcess() override { return front; }
  void watch(std::function<void()> changed) override { changed_ = std::move(changed); }
  void bringToFront(std::optional<pid_t> pid) {
    front = pid;
    if (changed_) changed_();
  }
  std::optional<pid_t> front;

 private:
  std::function<void()> changed_;
};

// Timers that fire when the test says so.
class ManualTimers : public TimerSource {
 public:
  class ManualTimer : public Timer {
   public:
    explicit ManualTimer(std::function<void(Timer&)> fire) : fire_(std::move(fire)) {}
    void invalidate() override { valid_ = false; }
    bool isValid() const override { return valid_; }
    std::function<void(Timer&)> fire_;
    bool valid_ = true;
  };
  std::shared_ptr<Timer> scheduledTimer(double, bool repeats,
                                        std::function<void(Timer&)> fire) override {
    auto timer = std::make_shared<ManualTimer>(std::move(fire));
    timers_.push_back({timer, repeats});
    return timer;
  }
  // Fires each timer that is due once; answers how many fired.
  int fireAll() {
    auto due = std::move(timers_);
    timers_.clear();
    int fired = 0;
    for (auto& [timer, repeats] : due) {
      if (!timer->valid_) continue;
      if (!repeats) timer->valid_ = false;
      timer->fire_(*timer);
      ++fired;
      if (repeats) timers_.push_back({timer, repeats});
    }
    return fired;
  }

 private:
  std::vector<std::pair<std::shared_ptr<ManualTimer>, bool>> timers_;
};

}  // namespace vesk::test
