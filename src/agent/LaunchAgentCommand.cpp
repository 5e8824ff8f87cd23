#include "agent/LaunchAgentCommand.h"

#include <fmt/format.h>

#include <cstdio>

namespace vesk {

int LaunchAgentCommand::execute() {
  const std::string line = fmt::format(
      "veskAgent: the {} verb (the per-user agent) is not built into this program yet.\n",
      kVerbName);
  std::fputs(line.c_str(), stderr);
  return 1;
}

}  // namespace vesk
