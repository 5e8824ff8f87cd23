#pragma once

#include <vector>

#include "platform/ProcessTable.h"

namespace vesk::test {

// A process table the test fills; kills are written down, not sent.
class FakeProcessTable : public ProcessTable {
 public:
  std::vector<ProcessRecord> listProcesses() override { return processes; }
  void sendKill(pid_t pid) override { killed.push_back(pid); }

  std::vector<ProcessRecord> processes;
  std::vector<pid_t> killed;
};

}  // namespace vesk::test
