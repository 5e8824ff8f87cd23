#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/Error.h"
#include "foundation/Format.h"

namespace vesk {

// The one way the program writes its log file, prints to the console and records the events
// of a running policy. Formats take fmt's "{}" placeholders; a value of the foundation prints
// as its description.
//
// Which sink each operation reaches:
//   logEvent                 the log file
//   println                  the console, and the policy events while policy logging is on
//   printlnVerbose           the console, only when the command line asked for verbose output
//   debugPrintln             the console, only when the command base answers that it debugs
//   logEventAndPrint         the log file, then println
//   logEventAndPrintVerbose  the log file, then printlnVerbose (logError too)
//   logExtreme               the log file, only at the debug log level
//
// Any thread may call any operation. Console lines are written whole under one process-wide
// recursive lock, so lines from different threads never interleave and a print inside a
// print does not deadlock. A log-file line is one append of its own and takes no lock, so
// threads and the client's other processes may write at once without mixing their lines.
// The policy state is meant for the thread that runs a policy; a lock keeps prints from other
// threads from corrupting it.
class VKLogging {
 public:
  // --- What the layers above logging hand over when the program starts ---

  // The command line decides whether verbose and debug output is shown, and the command base
  // sits above logging. Until it hands its switches over, both answer NO.
  using CommandSwitch = bool (*)();
  static void setCommandSwitches(CommandSwitch verbose, CommandSwitch debug);

  // A log line names the computer, and a full log is compressed with gzip run as a child;
  // both are done by layers above logging. Until they are installed, a line names "No Name"
  // and a full log is left to grow instead of being rotated away uncompressed.
  using ComputerNameSource = std::string (*)();
  using Compressor = void (*)(const std::string& path);
  static void setLogFileSources(ComputerNameSource computerName, Compressor compressor);

  // Where the global log level comes from; read once, at the first globalLogLevel. Until a
  // reader is installed the level is 1, normal.
  using LogLevelReader = int (*)();
  static void setLogLevelReader(LogLevelReader reader);

  // --- The log file ---

  // One line in the log file (rotating it first when it has grown too big).
  template <typename... Args>
  static void logEvent(fmt::format_string<Args...> format, Args&&... args) {
    logEventMessage(fmt::format(format, std::forward<Args>(args)...));
  }

  // --- The console ---

  // The message on standard output, then a newline, then a flush; under the console lock.
  // Like printf's "%s", the line stops at the first NUL byte of the message.
  template <typename... Args>
  static void synchronizedPrintln(fmt::format_string<Args...> format, Args&&... args) {
    writeConsoleLine(fmt::format(format, std::forward<Args>(args)...));
  }
  static void synchronizedPrintlnArguments(fmt::string_view format, fmt::format_args arguments) {
    writeConsoleLine(fmt::vformat(format, arguments));
  }

  // The console line every caller reads as output; also a policy event.
  template <typename... Args>
  static void println(fmt::format_string<Args...> format, Args&&... args) {
    printlnMessage(fmt::format(format, std::forward<Args>(args)...));
  }
  static void printlnArguments(fmt::string_view format, fmt::format_args arguments) {
    printlnMessage(fmt::vformat(format, arguments));
  }

  // Only when the command line asked for verbose output; the line reads " verbose: " and the
  // message, the leading blank included, as the client's other programs print it. Never a
  // policy event.
  template <typename... Args>
  static void printlnVerbose(fmt::format_string<Args...> format, Args&&... args) {
    if (!commandVerbose()) return;
    printlnVerboseMessage(fmt::format(format, std::forward<Args>(args)...));
  }
  static void printlnVerboseArguments(fmt::string_view format, fmt::format_args arguments) {
    if (!commandVerbose()) return;
    printlnVerboseMessage(fmt::vformat(format, arguments));
  }

  // Only when the command base answers that debugging is on.
  template <typename... Args>
  static void debugPrintln(fmt::format_string<Args...> format, Args&&... args) {
    if (!commandDebug()) return;
    writeConsoleLine(fmt::format(format, std::forward<Args>(args)...));
  }

  // --- Both ---

  template <typename... Args>
  static void logEventAndPrint(fmt::format_string<Args...> format, Args&&... args) {
    const std::string message = fmt::format(format, std::forward<Args>(args)...);
    logEventMessage(message);
    printlnMessage(message);
  }

  template <typename... Args>
  static void logEventAndPrintVerbose(fmt::format_string<Args...> format, Args&&... args) {
    logEventAndPrintVerboseMessage(fmt::format(format, std::forward<Args>(args)...));
  }

  // Only at the debug log level: "[DEBUG] " and the message, in the log file only.
  template <typename... Args>
  static void logExtreme(fmt::format_string<Args...> format, Args&&... args) {
    if (globalLogLevel() != 0) return;
    logEvent("[DEBUG] {}", fmt::format(format, std::forward<Args>(args)...));
  }

  // The error's description, in the log file and, when verbose, on the console. Nothing for
  // no error.
  static void logError(const Error* error);
  // "MESSAGE: DESCRIPTION" the same way.
  static void logError(const Error* error, std::string_view message);

  // 0 debug, 1 normal; read once per process.
  static int globalLogLevel();

  // --- The events of a running policy ---

  // Stored only while policy logging is on, with long runs of identical lines shortened.
  static void addToPolicyEvents(const std::string& message);
  // Once NO, the policy's success stays NO until policy logging starts again.
  static void addToPolicySuccess(bool success);
  static bool getPolicySuccess();
  static void startPolicyLogging() { startPolicyLoggingWithLimit(0); }
  // Clears what was stored and starts again; `limit` bytes at most (0: no limit).
  static void startPolicyLoggingWithLimit(std::uint64_t limit);
  // Turns storing back on, keeping what was stored and the success flag.
  static void restartPolicyLogging();
  static void stopPolicyLogging();
  static void clearPolicyLogEvents();
  static std::vector<std::string> policyLogEvents();
  // Whether events had to be shortened or dropped to keep to the limit.
  static bool logTruncated();

 private:
  static bool commandVerbose();
  static bool commandDebug();
  static void logEventMessage(const std::string& message);
  static void printlnMessage(const std::string& message);
  static void printlnVerboseMessage(const std::string& message);
  static void logEventAndPrintVerboseMessage(const std::string& message);
  static void writeConsoleLine(std::string_view message);
};

}  // namespace vesk
