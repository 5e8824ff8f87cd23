#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesk {

// One process as the system lists it. The path is the executable's, as raw bytes: it need
// not be UTF-8. Empty when the system gives none (a kernel thread, a process this one may not
// look into).
struct ProcessRecord {
  pid_t pid = 0;
  uid_t uid = 0;  // effective
  std::string path;
};

// One process held by the system's handle on it (a pidfd on Linux): while a pin lives, a kill
// of its pid through the table that made it goes to this process or nowhere, even if the pid
// is given to another process meanwhile. Pins are taken before the process is looked at, so
// that what was checked and what is killed are one process.
class ProcessPin {
 public:
  explicit ProcessPin(pid_t pid) : pid_(pid) {}
  virtual ~ProcessPin() = default;
  ProcessPin(const ProcessPin&) = delete;
  ProcessPin& operator=(const ProcessPin&) = delete;
  pid_t pid() const { return pid_; }
  // Whether the process still runs (not known for a plain pin: true).
  virtual bool alive() const { return true; }

 private:
  pid_t pid_;
};

// The machine's processes, and the one way the client ends one. Any thread may call.
class ProcessTable {
 public:
  virtual ~ProcessTable() = default;
  // Every process's pid and executable path, uid left 0: one look into each process, the
  // cheapest listing there is, for a pass that needs the owner of the few that match. A process
  // whose executable cannot be read (a kernel thread, one not ours to look into, one that has
  // just ended) is listed with an empty path.
  virtual std::vector<ProcessRecord> listExecutables() = 0;
  // The effective user of `pid`, provided it runs `path`: nullopt when it has ended or now
  // runs something else (a new image, or another program under a reused pid). Owner and path
  // are read from one look at the process, so they never mix two processes.
  virtual std::optional<uid_t> ownerOf(pid_t pid, std::string_view path) = 0;
  // SIGKILL: cannot be caught. Whether it arrived is not reported. A pid below 1 or this
  // process's own is never signalled. While a pin of `pid` taken from this table lives, the
  // signal goes through it.
  virtual void sendKill(pid_t pid) = 0;
  // Holds process `pid` from now on (see ProcessPin); a plain pin where the system has no
  // handles for processes.
  virtual std::shared_ptr<ProcessPin> pin(pid_t pid) { return std::make_shared<ProcessPin>(pid); }
  // The executable `pid` runs now; empty when it has ended or cannot be looked into.
  virtual std::string executableOf(pid_t pid);
  // The text of the process's control-group membership (/proc/<pid>/cgroup); nullopt when it
  // has ended.
  virtual std::optional<std::string> controlGroups(pid_t pid) = 0;

  // Every process with its owner; one that ends while it is read is left out.
  std::vector<ProcessRecord> listProcesses();

  // The machine's own table.
  static ProcessTable& system();
};

// Whether `pid` names one process other than this one. To kill(2), 0 is this process's group
// and a negative number a group or, as root, every process on the machine: records and PID
// files may hold anything, and such a number is never signalled.
bool isSignallablePid(pid_t pid);

// Readers of the text the system keeps per process (/proc/<pid>/status); pure functions.

// The effective user id from a status file's "Uid:" line (real, effective, saved, fs).
std::optional<uid_t> effectiveUidFromStatus(std::string_view status);
// The pid a /proc entry's name stands for: only names made of digits.
std::optional<pid_t> pidFromProcName(std::string_view name);

}  // namespace vesk
