#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/DesktopApplications.h"
#include "platform/FrontWindow.h"
#include "platform/LoginSession.h"
#include "platform/ProcessEvents.h"
#include "platform/SessionEvents.h"
#include "platform/Workspace.h"

typedef struct _GDBusConnection GDBusConnection;

namespace vesk {

// What the agent needs of its user's session. Made, started and used on one thread, whose run
// loop delivers everything.
class UserSession {
 public:
  virtual ~UserSession() = default;
  // `execHook` sees every exec of the machine first (see Workspace::setExecHook);
  // `distributed` gets the events that the distributed center's observers hear.
  virtual void start(Workspace::ExecHook execHook, SessionEventSink distributed) = 0;
  // Valid once started.
  virtual Workspace& workspace() = 0;
  // Who is at the screen. Once started, any thread may ask.
  virtual std::optional<std::string> consoleUser() = 0;
};

// The sources of the user's session, made for this machine and wired together: processes,
// applications and the front window into the workspace; the login manager's sleep, wake,
// power-off and switching into the workspace's center; screen saver, lock and log-out to the
// distributed observers. Made, started and used on one thread, whose run loop delivers
// everything.
class SessionLayer : public UserSession {
 public:
  using Log = std::function<void(const std::string&)>;

  // `systemBus` may be null (no bus: no login manager either). `log` hears, once each, what
  // is missing and how the layer copes.
  SessionLayer(GDBusConnection* systemBus, Log log);
  ~SessionLayer() override;
  SessionLayer(const SessionLayer&) = delete;
  SessionLayer& operator=(const SessionLayer&) = delete;

  void start(Workspace::ExecHook execHook, SessionEventSink distributed) override;

  Workspace& workspace() override { return *workspace_; }
  ProcessEventSource& processes() { return *processes_; }
  // Who is at the screen: the user of the seat's active session, else the owner of the
  // console.
  std::optional<std::string> consoleUser() override;
  // Whether the login manager answers.
  bool hasLoginManager() const { return loginManager_; }

 private:
  Log log_;
  std::unique_ptr<ProcessEventSource> processes_;
  std::unique_ptr<ScreenSaver> screenSaver_;
  bool screenSaverStarted_ = false;
  std::unique_ptr<LoginSession> login_;
  bool loginManager_ = false;
  std::unique_ptr<DesktopApplications> desktop_;
  std::unique_ptr<FrontWindow> frontWindow_;
  std::unique_ptr<Workspace> workspace_;
};

}  // namespace vesk
