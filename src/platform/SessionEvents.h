#pragma once

#include <functional>
#include <string>

#include "foundation/Value.h"

namespace vesk {

// The names under which the session layer reports what happens in the user's session: the
// names the agent's listeners observe. Those of the workspace's own center first; the agent
// observes them on Workspace.
inline constexpr const char* kWillLaunchApplication =
    "NSWorkspaceWillLaunchApplicationNotification";
inline constexpr const char* kDidLaunchApplication = "NSWorkspaceDidLaunchApplicationNotification";
inline constexpr const char* kDidTerminateApplication =
    "NSWorkspaceDidTerminateApplicationNotification";
inline constexpr const char* kDidActivateApplication =
    "NSWorkspaceDidActivateApplicationNotification";
inline constexpr const char* kWillSleep = "NSWorkspaceWillSleepNotification";
inline constexpr const char* kDidWake = "NSWorkspaceDidWakeNotification";
inline constexpr const char* kWillPowerOff = "NSWorkspaceWillPowerOffNotification";
inline constexpr const char* kSessionDidBecomeActive =
    "NSWorkspaceSessionDidBecomeActiveNotification";
inline constexpr const char* kSessionDidResignActive =
    "NSWorkspaceSessionDidResignActiveNotification";

// The system's own distributed names. These never travel on the bus: the session layer hands
// them to the process's distributed observers directly (deliverLocally).
inline constexpr const char* kScreenSaverDidStart = "com.apple.screensaver.didstart";
inline constexpr const char* kScreenSaverDidStop = "com.apple.screensaver.didstop";
inline constexpr const char* kScreenIsLocked = "com.apple.screenIsLocked";
inline constexpr const char* kScreenIsUnlocked = "com.apple.screenIsUnlocked";
// The name a log-out is reported under: "com.apple.logoutContinued" from 10.9 on,
// "com.apple.userWillLogOut" before, as the agent observes it.
std::string logoutNotificationName();

// The keys of an application record: the workspace's description of one application.
inline constexpr const char* kApplicationPathKey = "NSApplicationPath";
inline constexpr const char* kApplicationNameKey = "NSApplicationName";
inline constexpr const char* kApplicationProcessIdentifierKey = "NSApplicationProcessIdentifier";

// One thing that happened in the session, named as above. `distributed` says which center
// its observers use: the distributed one (screen saver, lock, log-out) or the workspace's.
struct SessionEvent {
  std::string name;
  Dictionary userInfo;
  bool distributed = false;
};

// Where a source of session events hands them; called on the run loop of the thread that
// started the source.
using SessionEventSink = std::function<void(const SessionEvent&)>;

}  // namespace vesk
