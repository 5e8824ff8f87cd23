#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Error.h"
#include "foundation/Value.h"
#include "platform/ChildProcess.h"

namespace vesk {

// How long a timed-out command's process group has after SIGTERM before SIGKILL.
inline constexpr double kTimeoutGraceSeconds = 1.0;

// Errors of this domain carry the child's exit status as their code and no message.
inline constexpr const char* VESKTaskErrorDomain = "com.vesksoftware.task.errors";

// A command: element 0 is the executable's path, the rest its arguments. No shell is involved.
using Command = std::vector<std::string>;

// The command as one line for `su -c`: each word in single quotes followed by a blank, the
// whole trimmed of blanks. A quote inside a word becomes backslash-quote; a POSIX shell does
// not honour that inside single quotes, and the form is kept deliberately because the
// client's other programs build their lines the same way.
std::string argumentString(const Command& command);

class VESKTask;

// An optional observer of a task. Either callback may be left empty. Both are called on the
// thread that runs the command, never on two threads at once.
struct VESKTaskDelegate {
  // Right after the child has been launched and processId() answers its id.
  std::function<void(VESKTask& task)> taskStartedProcess;
  // Each piece of output as it is read. Setting it makes the runner stream.
  std::function<void(VESKTask& task, const std::string& string)> taskReadString;
};

// Runs other programs as child processes and answers what they printed, stripped of white
// space and line ends at both ends. One object runs one command at a time and may be reused;
// it is not for use by two threads at once, except that terminate, suspend, resume,
// terminationStatus and processId may be called from any thread while a run is in progress
// (a request to kill a running policy arrives on another thread).
class VESKTask {
 public:
  VESKTask() = default;
  VESKTask(const VESKTask&) = delete;
  VESKTask& operator=(const VESKTask&) = delete;
  virtual ~VESKTask() = default;

  std::string execute(const Command& command, Error* error = nullptr) {
    return executeAndAnswerPromptWith(command, std::nullopt, error);
  }

  // The main runner. The child's standard input is a pipe: when `answer` is given it is
  // written there followed by one "\n" and the pipe is closed; otherwise the pipe stays open
  // and unwritten. With ignoreStderr the child's error text has a pipe of its own, which is
  // not read unless the run streams; without it, error text is mixed into the output.
  //
  // The run streams when writeToConsole is set or the delegate reads strings: output is then
  // handed on piece by piece as it comes (echoed to the console, given to the delegate) and
  // both pipes are read, the error pipe included.
  //
  // A non-zero exit status sets `error` (code = status); the output is answered either way.
  // A command that cannot be started is logged through logError, sets `error` and answers "".
  std::string executeAndAnswerPromptWith(const Command& command,
                                         const std::optional<std::string>& answer,
                                         Error* error = nullptr, bool ignoreStderr = true,
                                         bool writeToConsole = false);

  // Runs the command as `user` through that user's login shell: su -l USER -c LINE, with the
  // line built by argumentString.
  std::string executeAsUser(const Command& command, const std::string& user,
                            Error* error = nullptr);

  // Ends the child once it has run longer than `seconds` and logs that it did: SIGTERM to
  // the child's process group (it runs in one of its own), then, after kTimeoutGraceSeconds,
  // SIGKILL to whatever of the group is left, so a command that ignores SIGTERM cannot hold
  // the caller. Standard input and error are this process's own. What the child printed
  // before it ended is answered either way; a descendant that keeps the output open is not
  // waited for.
  std::string executeWithTimeout(const Command& command, double seconds, Error* error = nullptr);

  // Feeds the bytes of the file at `path` to the child's standard input, then deletes the
  // file, whatever happened. Error text is neither read into the result nor left to block.
  std::string executeWithStdinFromFile(const Command& command, const std::string& path,
                                       Error* error = nullptr);

  // Starts the child and returns at once; it shares this process's streams. terminate,
  // suspend, resume and terminationStatus address it until the next run.
  void executeInBackground(const Command& command);

  // Runs the command and parses its output as a property list (XML, binary or the text form
  // `defaults read` prints). Nil when the output is none of these.
  Value executeReturningPlist(const Command& command, Error* error = nullptr);

  // Passed to the child of the run in progress, or of the last background run; nothing
  // happens when there is none. terminationStatus answers 0 then, and while the child runs.
  void terminate();
  void suspend();
  void resume();
  int terminationStatus();

  // The process id of the last child launched; 0 before the first.
  pid_t processId() const { return processId_.load(); }

  // Held weakly: a delegate that has gone is simply not called.
  std::shared_ptr<VESKTaskDelegate> delegate() const { return delegate_.lock(); }
  void setDelegate(std::weak_ptr<VESKTaskDelegate> delegate) { delegate_ = std::move(delegate); }

 protected:
  // Hooks for subclasses. writeToConsole echoes output while it is read; logError reports a
  // failure of the runner itself; setupEnvironment decides the child's environment, by
  // calling setChildEnvironment (the base passes on this process's environment, as far as a
  // child may inherit it).
  virtual void writeToConsole(const std::string& text);
  virtual void logError(const std::string& message, bool verbose);
  virtual void setupEnvironment() {}

  void setChildEnvironment(std::optional<std::vector<std::string>> environment) {
    childEnvironment_ = std::move(environment);
  }

 private:
  struct Stream;

  // The child's streams as asked; by default it shares this process's own.
  ChildProcessPlan planFor(const Command& command, StdioMode input = StdioMode::kInherit,
                           StdioMode output = StdioMode::kInherit,
                           StdioMode error = StdioMode::kInherit);
  std::shared_ptr<ChildProcess> launch(const ChildProcessPlan& plan);
  static void endProcessGroup(ChildProcess& child);
  // The main runner's work: the child's output as it came, before stripping.
  std::string run(const Command& command, const std::optional<std::string>& answer, Error* error,
                  bool ignoreStderr, bool writeToConsole);
  std::string stream(const std::shared_ptr<ChildProcess>& child, bool sharedPipe);
  // One piece of streamed output, or the end of a pipe when `bytes` is empty.
  void outputNotify(Stream& stream, const std::string& bytes);
  // A non-zero exit status becomes the caller's error (code = status).
  static void waitForStatus(ChildProcess& child, Error* error);
  // A run that failed on its way is logged; the error carries what status the child has.
  void reportFailure(const Command& command, ChildProcess* child, Error* error);
  void finishRun();
  std::shared_ptr<ChildProcess> currentChild();

  std::atomic<pid_t> processId_{0};
  std::weak_ptr<VESKTaskDelegate> delegate_;
  std::optional<std::vector<std::string>> childEnvironment_;
  bool writesToConsole_ = false;
  std::string resultsData_;  // what a streaming run has read so far

  std::mutex taskLock_;
  std::shared_ptr<ChildProcess> task_;  // guarded by taskLock_
};

}  // namespace vesk
