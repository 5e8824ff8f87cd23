#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/SessionEvents.h"

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GVariant GVariant;

namespace vesk {

// The user's login session as the system's login manager sees it. Reports, through the sink:
// will-sleep and did-wake, will-power-off, the session becoming or resigning active (user
// switching), the screen locked and unlocked, log-out, and, where no screen saver reports
// itself, idleness as the screen saver starting and stopping. Everything is called on the
// thread that made the object.
class LoginSession {
 public:
  virtual ~LoginSession() = default;
  // Starts reporting on the calling thread's run loop. False when there is no login manager:
  // the caller logs why() once and goes on without these events.
  virtual bool start(SessionEventSink sink) = 0;
  // What failed last: why start() answered false, or, after a true answer, what the session
  // goes without (no delay inhibitor: sleep and power-off may come before they are reported).
  // Empty when nothing failed.
  virtual std::string why() const = 0;
  // The user of the seat's active session (whoever is at the screen now); nullopt when the
  // login manager cannot say.
  virtual std::optional<std::string> consoleUser() = 0;
  // The session's X11 display (":0"); empty when it has none or is not known.
  virtual std::string display() = 0;
};

// logind on `systemBus` (org.freedesktop.login1), for the session of this process, else the
// graphical session of its real user. A sleep or power-off waits for the sink while a delay
// inhibitor is held: the inhibitor is released once the sink has returned, and taken again on
// wake. `screenSaverPresent` says whether a screen saver reports itself; while it does not,
// the session's idle hint stands in for it.
std::unique_ptr<LoginSession> makeLogindSession(GDBusConnection* systemBus,
                                                std::function<bool()> screenSaverPresent);

// The screen savers of the user's session bus: org.freedesktop.ScreenSaver, org.gnome,
// org.cinnamon and org.xfce's, each reporting ActiveChanged(b).
class ScreenSaver {
 public:
  virtual ~ScreenSaver() = default;
  // Starts reporting didstart/didstop on the calling thread's run loop; false when there is no
  // session bus, for the caller to log why() once.
  virtual bool start(SessionEventSink sink) = 0;
  virtual std::string why() const = 0;
  // Whether one of them is on the bus now.
  virtual bool present() const = 0;
};

// The session bus of the real user, at /run/user/<uid>/bus (below VESK_ROOT in tests),
// connected to as that user: a set-user-id process may not take the address from its
// environment.
std::unique_ptr<ScreenSaver> makeSessionBusScreenSaver();

// What a PropertiesChanged signal of the login manager says of a session: each property the
// session layer follows, when it came with a value of the right type.
struct SessionProperties {
  std::optional<bool> active;
  std::optional<bool> lockedHint;
  std::optional<bool> idleHint;
  std::optional<std::string> state;
  // Properties said to have changed without their value.
  std::vector<std::string> invalidated;
};
// `parameters` as the signal carries them, "(sa{sv}as)"; empty for any other interface or shape.
SessionProperties sessionPropertiesFromSignal(GVariant* parameters);
// The same from the session's properties as Properties.GetAll answers them, "a{sv}"; empty for
// any other shape.
SessionProperties sessionPropertiesFromDictionary(GVariant* properties);

}  // namespace vesk
