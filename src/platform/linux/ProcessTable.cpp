#include "platform/ProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

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

class LinuxProcessTable : public ProcessTable {
 public:
  std::vector<ProcessRecord> listProcesses() override {
    std::vector<ProcessRecord> processes;
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) return processes;
    while (const dirent* entry = ::readdir(proc)) {
      const std::optional<pid_t> pid = pidFromProcName(entry->d_name);
      if (!pid) continue;
      // Everything is read through the process's own folder, so that a pid reused meanwhile
      // cannot mix two processes in one record.
      const int folder = ::openat(::dirfd(proc), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (folder < 0) continue;
      ProcessRecord record;
      record.pid = *pid;
      const std::optional<uid_t> uid = effectiveUid(folder);
      bool complete = uid.has_value();
      if (complete) {
        record.uid = *uid;
        char path[4096];
        const ssize_t length = ::readlinkat(folder, "exe", path, sizeof path);
        if (length > 0) {
          record.path.assign(path, static_cast<size_t>(length));
        } else {
          // No executable to name (a kernel thread, or not ours to look into) unless the
          // process has just gone, in which case it is left out.
          struct stat info;
          complete = ::fstatat(folder, "stat", &info, 0) == 0;
        }
      }
      ::close(folder);
      if (complete) processes.push_back(std::move(record));
    }
    ::closedir(proc);
    return processes;
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
