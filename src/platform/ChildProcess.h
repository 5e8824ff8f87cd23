#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesk {

// How one of a child's standard streams is wired.
enum class StdioMode {
  kInherit,      // the parent's own stream
  kPipe,         // a new pipe; the parent holds the other end
  kSameAsStdout  // standard error only: the pipe of standard output
};

struct ChildProcessPlan {
  std::string path;                    // the executable; never looked up on PATH
  std::vector<std::string> arguments;  // without the program name, which is `path`
  // "NAME=value" entries; nullopt passes on what inheritableEnvironment() gives.
  std::optional<std::vector<std::string>> environment;
  StdioMode input = StdioMode::kInherit;
  StdioMode output = StdioMode::kInherit;
  StdioMode error = StdioMode::kInherit;
  // A process group of its own, led by the child, so that signalGroup reaches whatever it
  // starts as well.
  bool newProcessGroup = false;
};

// One child program, started without a shell.
//
// The pipe operations (writeInput, closeInput, the reads, the release calls) belong to the
// thread that launched the child, as does waitUntilExit while a separate standard error pipe
// is still held here; without one, any thread may wait. isRunning, terminationStatus,
// terminate, suspend and resume may be called from any thread at any time: they never signal
// a process id once the child has been reaped, so they cannot hit an unrelated process that
// inherited the number. Destroying an object whose child still runs leaves the child running
// and reaps it in the background once it exits, so no zombie is left behind.
class ChildProcess {
 public:
  // Starts the child. Throws vesk::Exception named "NSInvalidArgumentException" when it
  // cannot be started ("launch path not accessible" for a missing or non-executable path).
  static std::unique_ptr<ChildProcess> launch(const ChildProcessPlan& plan);

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t processIdentifier() const { return pid_; }

  // Writes all of `bytes` to the child's standard input. A child that has closed its input
  // makes this answer false; it never raises SIGPIPE in the caller.
  bool writeInput(std::string_view bytes);
  void closeInput();

  // Reads standard output until every holder of the pipe has closed it. When `input` is
  // given it is written to standard input meanwhile, which is then closed, so a child that
  // answers before it has read everything cannot deadlock with this process. A separate
  // standard error pipe is drained meanwhile and its bytes dropped.
  std::string readOutputToEnd(std::optional<std::string_view> input = std::nullopt);

  // Waits up to `milliseconds` for output, or until the child ends, and appends what has
  // arrived to `into`. Answers false once standard output has reached its end (the wait is
  // then spent waiting for the child alone).
  bool readOutputFor(std::string& into, int milliseconds);

  // Hands the reading end of standard output or of a separate standard error over to the
  // caller, who reads and closes it from then on; -1 when there is no such pipe.
  int releaseOutput();
  int releaseError();

  // A descriptor that polls readable once the child has ended, for readers that must not
  // outwait a descendant holding a pipe open; -1 where the system offers none. Owned here.
  int exitDescriptor() const { return exitFd_; }

  // Reads what standard output holds right now, without waiting for more; false once it has
  // reached its end.
  bool readAvailableOutput(std::string& into);

  // Waits up to `milliseconds` (-1: without limit) for the child to end, without collecting
  // its status, so that its process id and group stay its own meanwhile; answers whether it
  // has ended.
  bool waitForExit(int milliseconds);
  // Sends `number` to the child's process group (a child launched with newProcessGroup), its
  // members that outlived the child included, as long as the child's status has not been
  // collected: until then no other process can own that group's number.
  void signalGroup(int number);

  // Blocks until the child has ended; answers terminationStatus(). A separate standard
  // error pipe that was not released is drained while waiting.
  int waitUntilExit();
  bool isRunning();
  // The exit status, or the number of the signal that ended the child; 0 while it runs.
  int terminationStatus();
  // The status as wait() reports it, the form the C library's system() returns: the exit
  // status shifted left by eight bits, or the signal number; 0 while the child runs.
  int waitStatus();

  void terminate();  // SIGTERM: a polite request
  void suspend();    // SIGSTOP
  void resume();     // SIGCONT

 private:
  ChildProcess() = default;
  // Collects the child's status when it has ended, without blocking; answers whether it has.
  bool reapLocked();
  void drainSeparateErrorUntilExit();
  void signal(int number);

  pid_t pid_ = -1;
  int inputFd_ = -1;
  int outputFd_ = -1;
  int errorFd_ = -1;  // only when standard error has a pipe of its own
  int exitFd_ = -1;

  std::mutex lock_;
  bool exited_ = false;  // guarded by lock_
  int status_ = 0;       // guarded by lock_
  int waitStatus_ = 0;   // guarded by lock_
};

}  // namespace vesk
