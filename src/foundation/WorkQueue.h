#pragma once

#include <cstddef>
#include <functional>
#include <memory>

namespace vesk {

// Runs work on threads of its own, at most `maxThreads` at once, taking it in the order it was
// queued; with one thread, one piece after the other. Threads start when there is work and end
// when there is none. Any thread may queue work or wait. Work that throws is dropped quietly:
// it must report its own failures. Destroying the queue does not wait for work in progress,
// which goes on to its end.
class WorkQueue {
 public:
  WorkQueue(std::size_t maxThreads, std::size_t maxQueued);
  ~WorkQueue();
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  // False, and nothing queued, when `maxQueued` pieces are waiting already.
  bool post(std::function<void()> work);
  // Waits until nothing is queued or running; false when `seconds` passed first.
  bool waitUntilIdle(double seconds);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vesk
