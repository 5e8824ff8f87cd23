#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vesk {

class ChildProcess;

// Reads a child's output pipes on threads of its own, one per pipe, and hands what they read
// to the one thread that calls next(), in the order it was read from each pipe. A pipe is
// read to its end, or until the child has ended and what it wrote has been read, so a
// descendant that keeps the pipe open cannot hold the caller up.
class OutputPump {
 public:
  struct Chunk {
    std::size_t stream;  // the index of the pipe among those given
    std::string bytes;   // empty: that pipe is done
  };

  // Takes the reading ends in `fds` over and starts reading at once.
  OutputPump(std::vector<int> fds, std::shared_ptr<ChildProcess> child);
  OutputPump(const OutputPump&) = delete;
  OutputPump& operator=(const OutputPump&) = delete;
  // Stops the readers where they are and closes the pipes.
  ~OutputPump();

  // Blocks until the next chunk; nullopt once every pipe is done.
  std::optional<Chunk> next();

 private:
  struct Queue;
  void read(std::size_t stream, int fd);

  std::shared_ptr<ChildProcess> child_;
  std::unique_ptr<Queue> queue_;
  std::vector<int> fds_;
  int stopRead_ = -1;
  int stopWrite_ = -1;
  std::vector<std::thread> readers_;
};

}  // namespace vesk
