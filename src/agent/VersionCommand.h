#pragma once

#include "agent/VKCommand.h"

namespace vesk {

// `veskAgent version`: prints the client's version.
class VersionCommand : public VKCommand {
 public:
  static constexpr const char* kVersion = "9.96+LEG";

  std::string className() const override { return "VersionCommand"; }
  std::string helpText() const override { return "\nUsage:\tvesk version\n"; }
  std::string shortHelpText() const override { return "Prints the version of this application"; }
  bool rootRequired() const override { return false; }

 protected:
  int execute() override;
};

}  // namespace vesk
