#include "restrictions/VESKProcessHandler.h"

#include "logging/VKLogging.h"

namespace vesk {
namespace {

// The legacy process manager's lookup of a pid's serial number and its termination by serial
// number. This platform has no such manager: the lookup finds nothing and the termination
// fails, which leaves the signal to do the work.
bool legacyProcessForPid(pid_t, ProcessSerialNumber*) { return false; }
bool legacyKillProcess(const ProcessSerialNumber&) { return false; }

}  // namespace

VESKProcessHandler::VESKProcessHandler(pid_t pidNumber, ProcessSerialNumber andProcessSerialNumber,
                                       ProcessTable& table)
    : pid_(pidNumber), table_(table) {
  setProcessSerialNumber(andProcessSerialNumber, pidNumber);
}

void VESKProcessHandler::setProcessSerialNumber(ProcessSerialNumber, pid_t pidNumber) {
  if (!isOsVesionLessThanTenNine()) return;
  ProcessSerialNumber found;
  if (legacyProcessForPid(pidNumber, &found)) psn_ = found;
}

bool VESKProcessHandler::isProcessSerialNumberEmpty() const {
  return psn_.highLongOfPSN == 0 && psn_.lowLongOfPSN == 0;
}

bool VESKProcessHandler::isOsVesionLessThanTenNine() const {
  return !systemInfo_.currentOperatingSystem().isGreaterThanOrEqualToVersionString("10.9");
}

void VESKProcessHandler::killRunningProcess() {
  if (!isSignallablePid(pid_)) {
    VKLogging::logEvent("Refused to kill process {}: it names no process the agent may end",
                        static_cast<long>(pid_));
    return;
  }
  bool signalNeeded = true;
  if (isOsVesionLessThanTenNine() && !isProcessSerialNumberEmpty())
    signalNeeded = !legacyKillProcess(psn_);
  if (signalNeeded) table_.sendKill(pid_);
}

}  // namespace vesk
