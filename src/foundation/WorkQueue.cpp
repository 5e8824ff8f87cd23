#include "foundation/WorkQueue.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace vesk {

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
    while (!state->queue.empty()) {
      std::function<void()> work = std::move(state->queue.front());
      state->queue.pop_front();
      hold.unlock();
      try {
        work();
      } catch (...) {
      }
      work = nullptr;  // what it holds goes before the next piece starts
      hold.lock();
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
