#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

#include "foundation/Format.h"

namespace vesk {

// The one way the program prints to the console. Formats take fmt's "{}" placeholders; a
// value of the foundation prints as its description.
//
// Any thread may call any operation. Console lines are written whole under one process-wide
// recursive lock, so lines from different threads never interleave, and a thread that
// already holds it (a print inside a print) does not deadlock.
class VKLogging {
 public:
  // The command line decides whether verbose and debug output is shown, and the command base
  // sits above logging; it hands its switches over here when it is first used. Until then
  // both answer NO.
  using CommandSwitch = bool (*)();
  static void setCommandSwitches(CommandSwitch verbose, CommandSwitch debug);

  // The message on standard output, then a newline, then a flush; under the console lock.
  // Like printf's "%s", the line stops at the first NUL byte of the message.
  template <typename... Args>
  static void synchronizedPrintln(fmt::format_string<Args...> format, Args&&... args) {
    writeConsoleLine(fmt::format(format, std::forward<Args>(args)...));
  }

  // The console line every caller reads as output.
  template <typename... Args>
  static void println(fmt::format_string<Args...> format, Args&&... args) {
    printlnMessage(fmt::format(format, std::forward<Args>(args)...));
  }

  // Only when the command line asked for verbose output; the line reads " verbose: " and the
  // message, the leading blank included, as the client's other programs print it.
  template <typename... Args>
  static void printlnVerbose(fmt::format_string<Args...> format, Args&&... args) {
    if (!commandVerbose()) return;
    printlnVerboseMessage(fmt::format(format, std::forward<Args>(args)...));
  }

  // Only when the command base answers that debugging is on.
  template <typename... Args>
  static void debugPrintln(fmt::format_string<Args...> format, Args&&... args) {
    if (!commandDebug()) return;
    writeConsoleLine(fmt::format(format, std::forward<Args>(args)...));
  }

 private:
  static bool commandVerbose();
  static bool commandDebug();
  static void printlnMessage(const std::string& message);
  static void printlnVerboseMessage(const std::string& message);
  static void writeConsoleLine(std::string_view message);
};

}  // namespace vesk
