#include "logging/LogFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "foundation/FileManager.h"
#include "foundation/Paths.h"

namespace vesk {
namespace {

constexpr const char* kLogName = "vesk.log";
constexpr std::int32_t kRotationThreshold = 99'999'999;  // a log of 100,000,000 bytes rotates
constexpr int kGenerations = 10;

// What the writer creates belongs to owner 0 and group 80, mode 0755. The owner and group are
// set only when this process runs as root; any other run keeps its own and the mode.
constexpr FileAttributes kLogAttributes{0, 80, 0755};

// Set while this thread rotates: a line that the compression logs (gzip failing to start)
// is written without rotating again.
thread_local bool rotating = false;

void rotate(const LogFile& log, const std::string& directory, const std::string& path) {
  rotating = true;
  struct Done {
    ~Done() { rotating = false; }
  } done;
  for (int i = kGenerations - 1; i >= 1; --i) {
    const std::string older = fmt::format("{}/{}.{}.gz", directory, kLogName, i);
    const std::string newer = fmt::format("{}/{}.{}.gz", directory, kLogName, i + 1);
    if (fileExistsAtPath(newer)) removeItemAtPath(newer);
    if (fileExistsAtPath(older)) moveItemAtPath(older, newer);
  }
  log.compress(path);
  const std::string one = fmt::format("{}/{}.1.gz", directory, kLogName);
  const std::string compressed = fmt::format("{}/{}.gz", directory, kLogName);
  if (fileExistsAtPath(one)) removeItemAtPath(one);
  moveItemAtPath(compressed, one);
  removeItemAtPath(path);  // in case gzip left it behind
}

// The log opened for appending; created with the client's attributes when missing. The log
// folder belongs to root, so the last component is not followed when it is a link. The file
// usually exists, so that is tried first: one call per line.
int openForAppending(const std::string& path) {
  const int existing = ::open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC);
  if (existing >= 0 || errno != ENOENT) return existing;
  const int created =
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
             kLogAttributes.permissions);
  if (created >= 0) {
    applyAttributes(created, kLogAttributes);
    return created;
  }
  // Another writer created it in between.
  return ::open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC);
}

}  // namespace

std::string logDateText(std::time_t when) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm local{};
  ::localtime_r(&when, &local);
  // The pattern in the notation the client's other programs use; each run of one letter is
  // a field, anything else is copied.
  constexpr std::string_view kPattern = "EEE MMM dd HH:mm:ss";
  std::string text;
  for (std::size_t i = 0; i < kPattern.size();) {
    std::size_t run = 1;
    while (i + run < kPattern.size() && kPattern[i + run] == kPattern[i]) ++run;
    switch (kPattern[i]) {
      case 'E':
        text += kDays[local.tm_wday % 7];
        break;
      case 'M':
        text += kMonths[local.tm_mon % 12];
        break;
      case 'd':
        text += fmt::format("{:02d}", local.tm_mday);
        break;
      case 'H':
        text += fmt::format("{:02d}", local.tm_hour);
        break;
      case 'm':
        text += fmt::format("{:02d}", local.tm_min);
        break;
      case 's':
        text += fmt::format("{:02d}", local.tm_sec);
        break;
      default:
        text.append(run, kPattern[i]);
    }
    i += run;
  }
  return text;
}

std::string logLineText(std::time_t when, std::string_view computerName, pid_t pid,
                        std::string_view message) {
  return fmt::format("{} {} vesk[{}]: {}\n", logDateText(when), computerName, pid, message);
}

void LogFile::append(std::string_view message) const {
  const std::string directory = fsPath("/private/var/log");
  const std::string path = fmt::format("{}/{}", directory, kLogName);
  if (!fileExistsAtPath(directory)) createDirectoryAtPath(directory, kLogAttributes);

  // The size goes through a 32-bit conversion, as in the client's other programs; the limit
  // is far below where that could matter.
  const auto size = static_cast<std::int32_t>(fileSizeAtPath(path).value_or(0));
  if (size > kRotationThreshold && compress != nullptr && !rotating) rotate(*this, directory, path);

  const std::string line = logLineText(
      std::time(nullptr), computerName ? computerName() : "No Name", ::getpid(), message);
  const int fd = openForAppending(path);
  if (fd < 0) return;
  // One write per line: with O_APPEND the kernel places it whole at the end, whoever else
  // appends at the same time.
  writeAll(fd, line);
  ::close(fd);
}

}  // namespace vesk
