#pragma once

#include <sys/types.h>

#include <cstdint>

#include "foundation/VESKSystemInformation.h"
#include "platform/ProcessTable.h"

namespace vesk {

// The legacy process manager's name for a process: two words; both zero is none.
struct ProcessSerialNumber {
  std::uint32_t highLongOfPSN = 0;
  std::uint32_t lowLongOfPSN = 0;
};

// Ends one process. Before 10.9 the legacy process manager would be asked first; this
// platform has none, so every termination is SIGKILL, as on later systems.
class VESKProcessHandler {
 public:
  VESKProcessHandler(pid_t pidNumber, ProcessSerialNumber andProcessSerialNumber,
                     ProcessTable& table = ProcessTable::system());

  // Only the system's own answer is ever stored, never the number given: deliberately.
  void setProcessSerialNumber(ProcessSerialNumber serialNumber, pid_t pidNumber);
  bool isProcessSerialNumberEmpty() const;
  // Spelt so on purpose: other parts of the client call it by this name.
  bool isOsVesionLessThanTenNine() const;
  void killRunningProcess();

  const ProcessSerialNumber& psn() const { return psn_; }
  void setPsn(ProcessSerialNumber psn) { psn_ = psn; }
  pid_t pid() const { return pid_; }
  void setPid(pid_t pid) { pid_ = pid; }
  const VESKSystemInformation& systemInfo() const { return systemInfo_; }

 private:
  ProcessSerialNumber psn_;
  pid_t pid_;
  VESKSystemInformation systemInfo_;
  ProcessTable& table_;
};

}  // namespace vesk
