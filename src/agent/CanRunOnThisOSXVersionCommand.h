#pragma once

#include <optional>

#include "agent/VKCommand.h"
#include "foundation/VESKSystemInformation.h"

namespace vesk {

// `veskAgent canRunOnThisOSXVersion`: YES and status 0 on 10.7 or later, NO and 1 before.
// Installers and scripts ask it; it is left out of the help.
class CanRunOnThisOSXVersionCommand : public VKCommand {
 public:
  std::string className() const override { return "CanRunOnThisOSXVersionCommand"; }
  std::string helpText() const override { return "\nUsage:\tvesk canRunOnThisOSXVersion\n"; }
  std::string shortHelpText() const override {
    return "Prints YES if this version is compatible with this OSX version.";
  }
  bool hiddenVerb() const override { return true; }
  bool rootRequired() const override { return false; }

 protected:
  void preInitialize() override { systemInformation_.emplace(); }
  int execute() override;

 private:
  std::optional<VESKSystemInformation> systemInformation_;
};

}  // namespace vesk
