#pragma once

#include <functional>
#include <memory>

typedef struct _GMainContext GMainContext;

namespace vesk {

// A timer scheduled on a run loop. It stays scheduled, and keeps its callback, until it is
// invalidated (a one-shot timer invalidates itself once it has fired).
class Timer {
 public:
  virtual ~Timer() = default;
  // Stops the timer; it never fires afterwards. Any thread may call it.
  virtual void invalidate() = 0;
  virtual bool isValid() const = 0;
};

// Where timers come from. The run loop is the real one; tests pass one they fire themselves
// instead of waiting fifteen seconds.
class TimerSource {
 public:
  virtual ~TimerSource() = default;
  // Calls `fire` every `interval` seconds (once when not `repeats`) on the source's thread.
  virtual std::shared_ptr<Timer> scheduledTimer(double interval, bool repeats,
                                                std::function<void(Timer&)> fire) = 0;
};

// A thread's run loop, over GLib's thread-default main context: the main thread's is GLib's
// global default context; another thread gets a context of its own the first time it asks,
// pushed as its thread default so that what GLib (GDBus) registers from that thread is
// dispatched there. Timers, posted work and bus callbacks run only while the loop runs.
class RunLoop : public TimerSource {
 public:
  // The calling thread's loop; it lives as long as the thread.
  static RunLoop& current();

  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;
  ~RunLoop() override;

  // Dispatches what becomes due until `seconds` have passed, then returns. Runs may nest: a
  // handler may run the loop again (the agent's waits do).
  void runUntil(double seconds);
  // Dispatches until `done` answers true, checking after each dispatch, or until `seconds`
  // have passed; answers whether `done` was met.
  bool runUntilCondition(const std::function<bool()>& done, double seconds);

  std::shared_ptr<Timer> scheduledTimer(double interval, bool repeats,
                                        std::function<void(Timer&)> fire) override;
  void performAfterDelay(double seconds, std::function<void()> work);
  // Runs `work` on this loop's thread at its next turn. Any thread may call it.
  void post(std::function<void()> work);

  GMainContext* context() const { return context_; }
  // Runs `work` at the next turn of whichever loop runs `context`. Any thread may call it.
  static void postTo(GMainContext* context, std::function<void()> work);

 private:
  explicit RunLoop(GMainContext* context, bool pushed);

  GMainContext* context_;  // a reference of our own
  bool pushed_;            // pushed as the thread default by us, popped when the thread ends
};

}  // namespace vesk
