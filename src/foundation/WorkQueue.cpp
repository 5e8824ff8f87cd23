#include "foundation/WorkQueue.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace vesk {
namespace {

// Queued pieces at once that count as a burst.
constexpr std::size_t kBacklog = 64;

}  // namespace

struct WorkQueue::State {
  std::mutex lock;
  std::condition_variable idle;
  std::deque<std::function<void()>> queue;  // guarded by lock
  std::size_t running = 0;                  // guarded by lock: threads started
  std::size_t maxThreads;
  std::size_t maxQueued;

  // One thread's life: work until there is none left.
  static void serve(const std::shared_ptr<State>& state) {
    std::unique_lock<std::mutex> hold(state->lock);
    std::size_t backlog = 0;
    while (!state->queue.empty()) {
      backlog = std::max(backlog, state->queue.size());
      std::function<void()> work = std::move(state->queue.front());
      state->queue.pop_front();
      hold.unlock();
      try {
        work();
      } catch (...) {
      }
      work = nullptr;  // what it holds goes before the next piece starts
      hold.lock();
      if (state->queue.empty() && backlog >= kBacklog) {
        // The allocator keeps what a burst of queued work took at its peak; a process that
        // lives as long as a session should not carry its largest burst for the rest of it.
        backlog = 0;
        hold.unlock();
        ::malloc_trim(0);
        hold.lock();
      }
    }
    --state->running;
    state->idle.notify_all();
  }
};

WorkQueue::WorkQueue(std::size_t maxThreads, std::size_t maxQueued)
    : state_(std::make_shared<State>()) {
  state_->maxThreads = maxThreads > 0 ? maxThreads : 1;
  state_->maxQueued = maxQueued;
}

WorkQueue::~WorkQueue() = default;

bool WorkQueue::post(std::function<void()> work) {
  std::lock_guard<std::mutex> hold(state_->lock);
  if (state_->queue.size() >= state_->maxQueued) return false;
  state_->queue.push_back(std::move(work));
  if (state_->running < state_->maxThreads) {
    ++state_->running;
    std::thread(&State::serve, state_).detach();
  }
  return true;
}

bool WorkQueue::waitUntilIdle(double seconds) {
  std::unique_lock<std::mutex> hold(state_->lock);
  return state_->idle.wait_for(hold, std::chrono::duration<double>(seconds),
                               [&] { return state_->queue.empty() && state_->running == 0; });
}

}  // namespace vesk
