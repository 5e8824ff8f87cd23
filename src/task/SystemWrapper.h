#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Error.h"

namespace vesk {

// Errors of this domain carry a shell's exit status as their code and no message.
inline constexpr const char* VKErrorDomain = "com.vesksoftware.core.errors";

// Runs command lines through the shell, capturing everything they print in a temporary file
// named after this process ("/private/tmp/PID.tmp"). Both operations block until the shell
// returns. The file names depend only on the process id, so two calls in one process must
// not overlap.
class SystemWrapper {
 public:
  // Everything the command printed, both streams; nullopt when the capture cannot be read.
  // A non-zero status sets `error` (code = status).
  std::optional<std::string> executeSystemCommand(const std::string& command,
                                                  Error* error = nullptr);

  // Runs the command with its output shown live, line by line, and captured, between the
  // lines <progress status="STATUS"> and </progress>. Answers the captured output without
  // the exit-code marker line's marker. The status that sets `error` is the pipeline's,
  // that of the script that shows the lines, not the command's own: a failing command gives
  // no error here, deliberately, and callers read its code from the marker.
  std::optional<std::string> executeSystemCommandInShell(const std::string& command,
                                                         const std::string& status,
                                                         Error* error = nullptr);

  // One command line for a POSIX shell: each element quoted, separated by blanks.
  static std::string commandStringFromArray(const std::vector<std::string>& array);
  // The text in single quotes, each quote in it written as '\''.
  static std::string fixParamForCommandString(std::string_view param);
};

}  // namespace vesk
