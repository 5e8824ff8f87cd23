#pragma once

#include "agent/VKCommand.h"

namespace vesk {

// The agent itself, and the verb every command line falls through to. This program does not
// carry the agent's run loop yet: the verb says so plainly on standard error and exits 1
// rather than pretend to run.
class LaunchAgentCommand : public VKCommand {
 public:
  static constexpr const char* kVerbName = "launchAgent";

  std::string className() const override { return "LaunchAgentCommand"; }
  // The blank between the tab and "vesk" is the agent's own; kept as it always was.
  std::string helpText() const override { return "\nUsage:\t vesk launchAgent\n"; }
  std::string shortHelpText() const override {
    return "Sends events on a per user basis to the vesk daemon.";
  }
  bool hiddenVerb() const override { return true; }
  bool rootRequired() const override { return false; }

 protected:
  int execute() override;
};

}  // namespace vesk
