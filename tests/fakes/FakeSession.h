#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
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
    handler_(ProcessEvent{ProcessEvent::Kind::kExec, pid, uid, path, nullptr});
  }
  void exit(pid_t pid) { handler_(ProcessEvent{ProcessEvent::Kind::kExit, pid, 0, {}, nullptr}); }

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

// One-shot timers that fire when the test says so.
class ManualTimers : public TimerSource {
  struct OneShot : Timer {
    std::function<void(Timer&)> fire;
    bool valid = true;
    void invalidate() override { valid = false; }
    bool isValid() const override { return valid; }
  };
  std::vector<std::shared_ptr<OneShot>> due_;

 public:
  std::shared_ptr<Timer> scheduledTimer(double, bool, std::function<void(Timer&)> fire) override {
    auto timer = std::make_shared<OneShot>();
    timer->fire = std::move(fire);
    due_.push_back(timer);
    return timer;
  }
  // Fires the timers that are due now; answers how many fired.
  int fireAll() {
    int fired = 0;
    for (const auto& timer : std::exchange(due_, {})) {
      if (!timer->valid) continue;
      timer->valid = false;
      timer->fire(*timer);
      ++fired;
    }
    return fired;
  }
};

}  // namespace vesk::test
