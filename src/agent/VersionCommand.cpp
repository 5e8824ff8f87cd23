#include "agent/VersionCommand.h"

#include "logging/VKLogging.h"

namespace vesk {

int VersionCommand::execute() {
  VKLogging::synchronizedPrintln("version={}", kVersion);
  return 0;
}

}  // namespace vesk
