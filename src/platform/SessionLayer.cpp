#include "platform/SessionLayer.h"

#include <unistd.h>

#include <string>
#include <vector>

#include "foundation/Paths.h"
#include "foundation/RunLoop.h"
#include "platform/ProcessSecurity.h"
#include "platform/Users.h"

namespace vesk {
SessionLayer::SessionLayer(GDBusConnection* systemBus, Log log) : log_(std::move(log)) {
  processes_ = makeSystemProcessEventSource(ProcessTable::system(), log_);
  screenSaver_ = makeSessionBusScreenSaver();
  login_ = makeLogindSession(systemBus,
                             [this] { return screenSaverStarted_ && screenSaver_->present(); });
  desktop_ = makeSystemDesktopApplications(homeOfUser(startingUserId()));
}

SessionLayer::~SessionLayer() = default;

void SessionLayer::start(Workspace::ExecHook execHook, SessionEventSink distributed) {
  const auto sink = [this, distributed](const SessionEvent& event) {
    if (event.distributed) {
      distributed(event);
    } else {
      workspace_->postNotification(event.name, event.userInfo);
    }
  };
  screenSaverStarted_ = screenSaver_->start(sink);
  if (!screenSaverStarted_) log_("No screen saver can be heard: " + screenSaver_->why());
  loginManager_ = login_->start(sink);
  if (!loginManager_) log_("No login manager: " + login_->why() + "; going on without it");

  // The display is the login manager's word for the session, never the environment's, but
  // for a program that may trust its environment (the session tool run by hand).
  std::string display = login_->display();
  if (display.empty()) display = secureEnvironmentValue("DISPLAY").value_or("");
  if (display.empty()) {
    frontWindow_ = makeNoFrontWindow();
  } else {
    // Where display managers leave the user's cookie: the home (LightDM, startx), GDM's run
    // folder; the environment's word only where it may be trusted.
    std::vector<std::string> authorities = {
        homeOfUser(startingUserId()) + "/.Xauthority",
        fsPath("/run/user/" + std::to_string(startingUserId()) + "/gdm/Xauthority")};
    if (std::optional<std::string> given = secureEnvironmentValue("XAUTHORITY"))
      authorities.insert(authorities.begin(), *given);
    std::string why;
    for (const std::string& authority : authorities) {
      why.clear();
      frontWindow_ = makeX11FrontWindow(display, authority, &why);
      if (why.empty()) break;
    }
    if (!why.empty()) log_("The front window cannot be asked: " + why);
  }
  workspace_ = std::make_unique<Workspace>(startingUserId(), ProcessTable::system(), *processes_,
                                           *desktop_, *frontWindow_, RunLoop::current());
  workspace_->setExecHook(std::move(execHook));
  workspace_->start();
}

std::optional<std::string> SessionLayer::consoleUser() {
  if (loginManager_)
    if (std::optional<std::string> user = login_->consoleUser()) return user;
  return consoleOwnerName();
}

}  // namespace vesk
