#include "platform/ProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace vesk {
namespace {

// Reads a small /proc file in one go; nullopt when it cannot be read (the process ended).
std::optional<std::string> readSmallFile(int directory, const char* name) {
  const int fd = ::openat(directory, name, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string text;
  char buffer[4096];
  ssize_t n = 0;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  ::close(fd);
  if (n < 0) return std::nullopt;
  return text;
}

// The effective user of the process whose /proc folder is open. The folder belongs to that
// user unless the process may not be inspected (it changed its ids), when it belongs to root;
// so only a root-owned folder needs the status file, which costs ten times as much to read.
std::optional<uid_t> effectiveUid(int folder) {
  struct stat info;
  if (::fstat(folder, &info) != 0) return std::nullopt;
  if (info.st_uid != 0) return info.st_uid;
  const std::optional<std::string> status = readSmallFile(folder, "status");
  return status ? effectiveUidFromStatus(*status) : std::nullopt;
}

// The executable's path through a handle on /proc or on the process's own folder; empty
// when there is none to read.
std::string executablePath(int directory, const char* name) {
  char path[4096];
  const ssize_t length = ::readlinkat(directory, name, path, sizeof path);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

class LinuxProcessTable : public ProcessTable {
 public:
  // One readlink per process, straight from /proc: most processes match nothing, and for
  // them neither the owner nor anything else is worth a look.
  std::vector<ProcessRecord> listExecutables() override {
    std::vector<ProcessRecord> processes;
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) return processes;
    while (const dirent* entry = ::readdir(proc)) {
      const std::optional<pid_t> pid = pidFromProcName(entry->d_name);
      if (!pid) continue;
      char link[32];
      std::snprintf(link, sizeof link, "%d/exe", static_cast<int>(*pid));
      processes.push_back(ProcessRecord{*pid, 0, executablePath(::dirfd(proc), link)});
    }
    ::closedir(proc);
    return processes;
  }

  std::optional<uid_t> ownerOf(pid_t pid, std::string_view path) override {
    char name[32];
    std::snprintf(name, sizeof name, "/proc/%d", static_cast<int>(pid));
    // Both answers come through one open folder, so they are one process's. A pid that
    // another program took meanwhile shows in the executable; one that the same program took
    // is that program, which is what the caller goes on to act on.
    const int folder = ::open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return std::nullopt;
    std::optional<uid_t> uid;
    if (executablePath(folder, "exe") == path) uid = effectiveUid(folder);
    ::close(folder);
    return uid;
  }

  void sendKill(pid_t pid) override {
    if (isSignallablePid(pid)) (void)::kill(pid, SIGKILL);
  }
};

}  // namespace

ProcessTable& ProcessTable::system() {
  static LinuxProcessTable table;
  return table;
}

}  // namespace vesk
