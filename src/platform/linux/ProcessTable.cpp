#include "platform/ProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>

#include "platform/linux/ProcFiles.h"

namespace vesk {

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

std::optional<uid_t> effectiveUid(int folder) {
  struct stat info;
  if (::fstat(folder, &info) != 0) return std::nullopt;
  if (info.st_uid != 0) return info.st_uid;
  const std::optional<std::string> status = readSmallFile(folder, "status");
  return status ? effectiveUidFromStatus(*status) : std::nullopt;
}

std::string executablePath(int directory, const char* name) {
  char path[4096];
  const ssize_t length = ::readlinkat(directory, name, path, sizeof path);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

namespace {

int openPidfd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }

bool signalPidfd(int pidfd, int signal) {
  return ::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0) == 0;
}

// A process held by a pidfd. The table keeps a weak reference per pid, so that a kill of that
// pid while the pin lives goes through the pidfd.
class Pidfd : public ProcessPin {
 public:
  Pidfd(pid_t pid, int fd) : ProcessPin(pid), fd_(fd) {}
  ~Pidfd() override {
    if (fd_ >= 0) ::close(fd_);
  }
  bool alive() const override { return fd_ < 0 || signalPidfd(fd_, 0); }
  // False when the process has ended (or there is no pidfd to send through).
  bool kill() const { return fd_ >= 0 && signalPidfd(fd_, SIGKILL); }
  bool hasHandle() const { return fd_ >= 0; }

 private:
  int fd_;
};

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
    if (!isSignallablePid(pid)) return;
    std::shared_ptr<Pidfd> held;
    {
      std::lock_guard<std::mutex> hold(lock_);
      const auto found = pins_.find(pid);
      if (found != pins_.end()) held = found->second.lock();
    }
    // A pinned process is killed through its pidfd or not at all: if it has ended, its pid
    // may already be another process's.
    if (held && held->hasHandle()) {
      (void)held->kill();
      return;
    }
    const int pidfd = openPidfd(pid);
    if (pidfd >= 0) {
      (void)signalPidfd(pidfd, SIGKILL);
      ::close(pidfd);
    } else if (errno == ENOSYS) {
      (void)::kill(pid, SIGKILL);  // a kernel without pidfds
    }
  }

  std::shared_ptr<ProcessPin> pin(pid_t pid) override {
    const int fd = isSignallablePid(pid) ? openPidfd(pid) : -1;
    auto pinned = std::shared_ptr<Pidfd>(new Pidfd(pid, fd), [this](Pidfd* pin) {
      {
        std::lock_guard<std::mutex> hold(lock_);
        const auto found = pins_.find(pin->pid());
        if (found != pins_.end() && found->second.expired()) pins_.erase(found);
      }
      delete pin;
    });
    std::lock_guard<std::mutex> hold(lock_);
    pins_[pid] = pinned;
    return pinned;
  }

  std::string executableOf(pid_t pid) override {
    char link[32];
    std::snprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(pid));
    return executablePath(AT_FDCWD, link);
  }

  std::optional<std::string> controlGroups(pid_t pid) override {
    char name[32];
    std::snprintf(name, sizeof name, "/proc/%d", static_cast<int>(pid));
    const int folder = ::open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return std::nullopt;
    std::optional<std::string> text = readSmallFile(folder, "cgroup");
    ::close(folder);
    return text;
  }

 private:
  std::mutex lock_;
  std::map<pid_t, std::weak_ptr<Pidfd>> pins_;  // guarded by lock_
};

}  // namespace

ProcessTable& ProcessTable::system() {
  static LinuxProcessTable table;
  return table;
}

}  // namespace vesk
