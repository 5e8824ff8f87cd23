#pragma once

#include <memory>
#include <vector>

#include "foundation/RunLoop.h"

namespace vesk::test {

// Timers that fire when the test says so, not when their interval has passed.
class ManualTimerSource : public TimerSource {
 public:
  struct ManualTimer : Timer {
    double interval = 0;
    bool repeats = false;
    std::function<void(Timer&)> fire;
    bool valid = true;
    void invalidate() override { valid = false; }
    bool isValid() const override { return valid; }
  };

  std::shared_ptr<Timer> scheduledTimer(double interval, bool repeats,
                                        std::function<void(Timer&)> fire) override {
    auto timer = std::make_shared<ManualTimer>();
    timer->interval = interval;
    timer->repeats = repeats;
    timer->fire = std::move(fire);
    timers.push_back(timer);
    return timer;
  }

  // Fires every valid timer once, as if its interval had passed; a one-shot timer ends.
  void fireAll() {
    const auto due = timers;
    for (const auto& timer : due) {
      if (!timer->valid) continue;
      if (!timer->repeats) timer->valid = false;
      timer->fire(*timer);
    }
  }

  std::vector<std::shared_ptr<ManualTimer>> timers;
};

}  // namespace vesk::test
