#include "platform/ProcessTable.h"

#include <unistd.h>

#include <charconv>

namespace vesk {

std::vector<ProcessRecord> ProcessTable::listProcesses() {
  std::vector<ProcessRecord> processes = listExecutables();
  std::erase_if(processes, [this](ProcessRecord& process) {
    const std::optional<uid_t> uid = ownerOf(process.pid, process.path);
    if (uid) process.uid = *uid;
    return !uid;
  });
  return processes;
}

std::string ProcessTable::executableOf(pid_t pid) {
  for (const ProcessRecord& process : listExecutables())
    if (process.pid == pid) return process.path;
  return {};
}

std::optional<uid_t> effectiveUidFromStatus(std::string_view status) {
  for (std::size_t start = 0; start < status.size();) {
    std::size_t end = status.find('\n', start);
    if (end == std::string_view::npos) end = status.size();
    std::string_view line = status.substr(start, end - start);
    start = end + 1;
    if (line.substr(0, 4) != "Uid:") continue;
    line.remove_prefix(4);
    // Skip the real id to reach the effective one.
    for (int field = 0; field < 2; ++field) {
      const std::size_t begin = line.find_first_not_of(" \t");
      if (begin == std::string_view::npos) return std::nullopt;
      line.remove_prefix(begin);
      const std::size_t length = std::min(line.find_first_of(" \t"), line.size());
      if (field == 1) {
        unsigned long long uid = 0;
        const auto [at, error] = std::from_chars(line.data(), line.data() + length, uid);
        if (error != std::errc() || at != line.data() + length || uid > static_cast<uid_t>(-1))
          return std::nullopt;
        return static_cast<uid_t>(uid);
      }
      line.remove_prefix(length);
    }
  }
  return std::nullopt;
}

bool isSignallablePid(pid_t pid) { return pid > 0 && pid != ::getpid(); }

std::optional<pid_t> pidFromProcName(std::string_view name) {
  if (name.empty() || name.size() > 10) return std::nullopt;
  long long pid = 0;
  const auto [at, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  if (error != std::errc() || at != name.data() + name.size() || name[0] == '-' || pid <= 0 ||
      pid > 0x7fffffff)
    return std::nullopt;
  return static_cast<pid_t>(pid);
}

}  // namespace vesk
