#include "agent/CanRunOnThisOSXVersionCommand.h"

#include "logging/VKLogging.h"

namespace vesk {

int CanRunOnThisOSXVersionCommand::execute() {
  // "10.7" here while the entry point requires "10.7.0": the two compare equal, and both
  // spellings are kept as the installers know them.
  if (systemInformation_->currentOperatingSystem().isGreaterThanOrEqualToVersionString("10.7")) {
    VKLogging::println("YES");
    return 0;
  }
  VKLogging::println("NO");
  return 1;
}

}  // namespace vesk
