#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <string_view>

namespace vesk {

// The shared client log: "vesk.log" in the client's log folder, with up to ten gzip
// generations beside it.
struct LogFile {
  std::string (*computerName)() = nullptr;
  void (*compress)(const std::string& path) = nullptr;  // gzip in place; nullptr: no rotation

  // Appends one line for `message`, creating the folder and the file when missing and
  // rotating first when the file has reached its limit. Every failure is swallowed; when
  // the file cannot be opened the line is lost.
  void append(std::string_view message) const;
};

// "EEE MMM dd HH:mm:ss" with English names, in this process's time zone: Mon Nov 16 06:41:58.
std::string logDateText(std::time_t when);

// A whole log line: date, computer name, "vesk[PID]: " and the message, then "\n". The word
// before the bracket is "vesk" whichever program writes, so that all of the client's
// programs share one format. Line ends inside the message are written as they are.
std::string logLineText(std::time_t when, std::string_view computerName, pid_t pid,
                        std::string_view message);

}  // namespace vesk
