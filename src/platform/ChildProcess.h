#pragma once

#include <sys/types.h>

#include <memory>
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
  // "NAME=value" entries; nullopt passes the parent's environment on.
  std::optional<std::vector<std::string>> environment;
  StdioMode input = StdioMode::kInherit;
  StdioMode output = StdioMode::kInherit;
  StdioMode error = StdioMode::kInherit;
};

// One child program, started without a shell. Owned by the thread that launched it; not for
// use by two threads at once. Destroying an object whose child still runs leaves the child
// running and reaps it in the background once it exits, so no zombie is left behind.
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

  // Reads standard output until every holder of the pipe has closed it. A separate standard
  // error pipe is drained meanwhile and its bytes dropped, so a child that writes much error
  // text cannot block on it.
  std::string readOutputToEnd();

  // Blocks until the child has ended; answers terminationStatus().
  int waitUntilExit();
  bool isRunning();
  // The exit status, or the number of the signal that ended the child; 0 while it runs.
  int terminationStatus() const { return status_; }

  void terminate();  // SIGTERM: a polite request
  void suspend();    // SIGSTOP
  void resume();     // SIGCONT

 private:
  ChildProcess() = default;
  void recordStatus(int waitStatus);
  void drainSeparateErrorUntilExit();

  pid_t pid_ = -1;
  bool exited_ = false;
  int status_ = 0;
  int inputFd_ = -1;
  int outputFd_ = -1;
  int errorFd_ = -1;  // only when standard error has a pipe of its own
};

}  // namespace vesk
