#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/ChildProcess.h"

namespace vesk::test {

// `vesk-center serve` as a child: the daemon's center in another process. Construction waits
// until it owns the daemon's name. Its output is read all the time on a thread of its own, so
// a long line never blocks it in the middle of a delivery.
class ServingDaemon {
 public:
  ServingDaemon();
  ~ServingDaemon();

  // The next line it printed; "" when none came within ten seconds or it ended.
  std::string nextLine();
  void stop();
  ChildProcess& process() { return *child_; }
  const std::string& owner() const { return owner_; }

 private:
  std::unique_ptr<ChildProcess> child_;
  std::string owner_;
  std::thread reader_;
  std::mutex lock_;
  std::condition_variable arrived_;
  std::string buffered_;  // guarded by lock_
  bool ended_ = false;    // guarded by lock_
};

// Starts a program whose output is read once it has ended; the caller runs its own loop
// meanwhile (a program that posts may need this process to answer it).
std::unique_ptr<ChildProcess> startProgram(const std::string& path,
                                           const std::vector<std::string>& arguments);

// Reads what `child` prints until it has printed `text` (kept in `output`); false when it
// ended or `seconds` passed first.
bool waitForOutput(ChildProcess& child, std::string& output, const std::string& text,
                   double seconds = 10);

// setpriv's arguments that run a program as nobody.
std::vector<std::string> asNobody(const std::string& path);
// Why a test cannot run `path` as nobody (not root, or nobody cannot reach it); "" when it can.
std::string whyNobodyCannotRun(const std::string& path);

}  // namespace vesk::test
