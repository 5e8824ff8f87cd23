#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Error.h"
#include "foundation/Value.h"
#include "platform/ChildProcess.h"

namespace vesk {

// Errors of this domain carry the child's exit status as their code and no message.
inline constexpr const char* VESKTaskErrorDomain = "com.vesksoftware.task.errors";

// A command: element 0 is the executable's path, the rest its arguments. No shell is involved.
using Command = std::vector<std::string>;

// Runs other programs as child processes and answers what they printed, stripped of white
// space and line ends at both ends. One object runs one command at a time and may be reused;
// it is not for use by two threads at once. Every operation blocks the calling thread until
// the child has exited.
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
  // and unwritten. With ignoreStderr the child's error text never reaches the result;
  // without it, error text is mixed into the result. A non-zero exit status sets `error`
  // (code = status); the output is answered either way. A command that cannot be started is
  // logged through logError and answers "".
  std::string executeAndAnswerPromptWith(const Command& command,
                                         const std::optional<std::string>& answer,
                                         Error* error = nullptr, bool ignoreStderr = true);

  // Runs the command and parses its output as a property list (XML, binary or the text form
  // `defaults read` prints). Nil when the output is none of these.
  Value executeReturningPlist(const Command& command, Error* error = nullptr);

  // The process id of the last child launched; 0 before the first.
  pid_t processId() const { return processId_; }

 protected:
  // Hooks for subclasses. writeToConsole echoes output while it is read; logError reports a
  // failure of the runner itself; setupEnvironment decides the child's environment, by
  // calling setChildEnvironment (the base passes this process's environment on unchanged).
  virtual void writeToConsole(const std::string& text);
  virtual void logError(const std::string& message, bool verbose);
  virtual void setupEnvironment() {}

  void setChildEnvironment(std::optional<std::vector<std::string>> environment) {
    childEnvironment_ = std::move(environment);
  }

 private:
  ChildProcessPlan planFor(const Command& command);
  // The main runner's work: the child's output as it came, before decoding and stripping.
  std::string run(const Command& command, const std::optional<std::string>& answer, Error* error,
                  bool ignoreStderr);

  pid_t processId_ = 0;
  std::optional<std::vector<std::string>> childEnvironment_;
};

}  // namespace vesk
