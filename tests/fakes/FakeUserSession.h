#pragma once

#include <optional>
#include <string>

#include "fakes/FakeProcessTable.h"
#include "fakes/FakeSession.h"
#include "platform/ProcessSecurity.h"
#include "platform/SessionLayer.h"
#include "platform/Users.h"

namespace vesk::test {

// A session of fakes: the workspace is real, over a fake process table and front window.
struct FakeUserSession : UserSession {
  void start(Workspace::ExecHook hook, SessionEventSink sink) override {
    workspace_.setExecHook(std::move(hook));
    distributed = std::move(sink);
    workspace_.start();
  }
  Workspace& workspace() override { return workspace_; }
  std::optional<std::string> consoleUser() override { return console; }

  FakeProcessTable table;
  FakeProcessEvents processes;
  FakeDesktopApplications desktop;
  FakeFrontWindow front;
  ManualTimers lookAgain;
  Workspace workspace_{startingUserId(), table, processes, desktop, front, lookAgain};
  SessionEventSink distributed;
  std::optional<std::string> console = currentUserShortName();
};

}  // namespace vesk::test
