#include "foundation/RunLoop.h"

#include <glib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

namespace vesk {
namespace {

bool isMainThread() { return ::syscall(SYS_gettid) == ::getpid(); }

guint milliseconds(double seconds) {
  if (seconds <= 0) return 0;
  const double ms = seconds * 1000.0;
  return ms >= static_cast<double>(G_MAXUINT) ? G_MAXUINT : static_cast<guint>(ms + 0.5);
}

class SourceTimer : public Timer, public std::enable_shared_from_this<SourceTimer> {
 public:
  SourceTimer(bool repeats, std::function<void(Timer&)> fire)
      : repeats_(repeats), fire_(std::move(fire)) {}
  ~SourceTimer() override {
    if (source_ != nullptr) g_source_unref(source_);
  }

  void start(GMainContext* context, double interval) {
    source_ = g_timeout_source_new(milliseconds(interval));
    // The source holds the timer alive until it is invalidated or done.
    auto* self = new std::shared_ptr<SourceTimer>(shared_from_this());
    g_source_set_callback(source_, &SourceTimer::dispatch, self, [](gpointer data) {
      delete static_cast<std::shared_ptr<SourceTimer>*>(data);
    });
    g_source_attach(source_, context);
  }

  void invalidate() override {
    if (valid_.exchange(false)) g_source_destroy(source_);
  }
  bool isValid() const override { return valid_.load(); }

 private:
  static gboolean dispatch(gpointer data) {
    const std::shared_ptr<SourceTimer> timer = *static_cast<std::shared_ptr<SourceTimer>*>(data);
    if (!timer->valid_.load()) return G_SOURCE_REMOVE;
    if (!timer->repeats_) timer->valid_ = false;
    timer->fire_(*timer);
    return timer->valid_.load() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
  }

  const bool repeats_;
  const std::function<void(Timer&)> fire_;  // called on the loop's thread only
  GSource* source_ = nullptr;
  std::atomic<bool> valid_{true};
};

gboolean runPosted(gpointer data) {
  (*static_cast<std::function<void()>*>(data))();
  return G_SOURCE_REMOVE;
}

}  // namespace

RunLoop& RunLoop::current() {
  thread_local std::unique_ptr<RunLoop> loop;
  if (!loop) {
    if (GMainContext* pushed = g_main_context_get_thread_default()) {
      loop.reset(new RunLoop(g_main_context_ref(pushed), false));
    } else if (isMainThread()) {
      loop.reset(new RunLoop(g_main_context_ref(g_main_context_default()), false));
    } else {
      GMainContext* own = g_main_context_new();
      g_main_context_push_thread_default(own);
      loop.reset(new RunLoop(own, true));
    }
  }
  return *loop;
}

RunLoop::RunLoop(GMainContext* context, bool pushed) : context_(context), pushed_(pushed) {}

RunLoop::~RunLoop() {
  if (pushed_) g_main_context_pop_thread_default(context_);
  g_main_context_unref(context_);
}

void RunLoop::runUntil(double seconds) {
  runUntilCondition([] { return false; }, seconds);
}

bool RunLoop::runUntilCondition(const std::function<bool()>& done, double seconds) {
  // A timeout source of our own wakes the loop at the deadline.
  bool expired = false;
  GSource* deadline = g_timeout_source_new(milliseconds(seconds));
  g_source_set_callback(
      deadline,
      [](gpointer flag) {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &expired, nullptr);
  g_source_attach(deadline, context_);
  bool met = done();
  while (!met && !expired) {
    g_main_context_iteration(context_, TRUE);
    met = done();
  }
  g_source_destroy(deadline);
  g_source_unref(deadline);
  return met;
}

std::shared_ptr<Timer> RunLoop::scheduledTimer(double interval, bool repeats,
                                               std::function<void(Timer&)> fire) {
  auto timer = std::make_shared<SourceTimer>(repeats, std::move(fire));
  timer->start(context_, interval);
  return timer;
}

void RunLoop::performAfterDelay(double seconds, std::function<void()> work) {
  scheduledTimer(seconds, false, [work = std::move(work)](Timer&) { work(); });
}

void RunLoop::post(std::function<void()> work) { postTo(context_, std::move(work)); }

void RunLoop::postTo(GMainContext* context, std::function<void()> work) {
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, &runPosted, new std::function<void()>(std::move(work)),
                        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
  g_source_attach(source, context);
  g_source_unref(source);
}

}  // namespace vesk
