#pragma once

#include <map>
#include <vector>

#include "platform/ProcessTable.h"

namespace vesk::test {

// A process table the test fills; kills are written down, not sent.
class FakeProcessTable : public ProcessTable {
 public:
  std::vector<ProcessRecord> listExecutables() override {
    std::vector<ProcessRecord> listed = processes;  // without owners, as the system lists them
    for (ProcessRecord& process : listed) process.uid = 0;
    return listed;
  }
  std::optional<uid_t> ownerOf(pid_t pid, std::string_view path) override {
    ++ownerLookups;
    for (const ProcessRecord& process : processes)
      if (process.pid == pid && process.path == path) return process.uid;
    return std::nullopt;
  }
  void sendKill(pid_t pid) override { killed.push_back(pid); }
  std::optional<std::string> controlGroups(pid_t pid) override {
    const auto found = cgroups.find(pid);
    if (found == cgroups.end()) return std::nullopt;
    return found->second;
  }

  std::vector<ProcessRecord> processes;
  std::vector<pid_t> killed;
  std::map<pid_t, std::string> cgroups;  // /proc/<pid>/cgroup's text, by pid
  int ownerLookups = 0;
};

}  // namespace vesk::test
