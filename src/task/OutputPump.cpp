#include "task/OutputPump.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "platform/ChildProcess.h"

namespace vesk {

struct OutputPump::Queue {
  std::mutex lock;
  std::condition_variable changed;
  std::deque<Chunk> chunks;  // guarded by lock
  std::size_t open = 0;      // pipes not yet done; guarded by lock
};

OutputPump::OutputPump(std::vector<int> fds, std::shared_ptr<ChildProcess> child)
    : child_(std::move(child)), queue_(std::make_unique<Queue>()), fds_(std::move(fds)) {
  int stop[2] = {-1, -1};
  if (::pipe2(stop, O_CLOEXEC) == 0) {
    stopRead_ = stop[0];
    stopWrite_ = stop[1];
  }
  queue_->open = fds_.size();
  for (std::size_t i = 0; i < fds_.size(); ++i)
    readers_.emplace_back([this, i, fd = fds_[i]] { read(i, fd); });
}

OutputPump::~OutputPump() {
  if (stopWrite_ >= 0) {
    const char stop = 's';
    while (::write(stopWrite_, &stop, 1) < 0 && errno == EINTR) {
    }
  }
  for (std::thread& reader : readers_) reader.join();
  for (int fd : fds_) ::close(fd);
  if (stopRead_ >= 0) ::close(stopRead_);
  if (stopWrite_ >= 0) ::close(stopWrite_);
}

void OutputPump::read(std::size_t stream, int fd) {
  const int exitFd = child_->exitDescriptor();
  char buffer[65536];
  bool stopped = false;
  while (true) {
    pollfd fds[3] = {{fd, POLLIN, 0}, {exitFd, POLLIN, 0}, {stopRead_, POLLIN, 0}};
    if (::poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[2].revents != 0) {
      stopped = true;
      break;
    }
    if (fds[0].revents != 0) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      std::lock_guard<std::mutex> hold(queue_->lock);
      queue_->chunks.push_back({stream, std::string(buffer, static_cast<std::size_t>(n))});
      queue_->changed.notify_one();
      continue;
    }
    // The child has ended, and the pipe had nothing more in the same poll: all it wrote
    // before it ended has been read.
    if (fds[1].revents != 0) break;
  }
  std::lock_guard<std::mutex> hold(queue_->lock);
  if (!stopped) queue_->chunks.push_back({stream, std::string()});
  --queue_->open;
  queue_->changed.notify_one();
}

std::optional<OutputPump::Chunk> OutputPump::next() {
  std::unique_lock<std::mutex> hold(queue_->lock);
  queue_->changed.wait(hold, [&] { return !queue_->chunks.empty() || queue_->open == 0; });
  if (queue_->chunks.empty()) return std::nullopt;
  Chunk chunk = std::move(queue_->chunks.front());
  queue_->chunks.pop_front();
  return chunk;
}

}  // namespace vesk
