// The session event relay: which notifications of the session the agent observes, and what it
// tells the daemon of each.
#include <fmt/format.h>

#include "agent/LaunchAgentCommand.h"
#include "logging/VKLogging.h"
#include "restrictions/BSDProcessList.h"

namespace vesk {
namespace {

constexpr const char* kUsernameKey = "Username";
// Frequent, and of no interest to anyone reading the log.
constexpr const char* kIgnoredNotification = "O3EngineChanged";
// The sleep and power-off handlers hold up the machine until they return (the login
// manager's delay lock is let go then): long enough for the posts to reach a daemon that
// answers, short of the login manager's own limit.
constexpr double kPostsBeforeSleepSeconds = 3.0;

}  // namespace

std::string AgentNotification::description() const {
  std::string text = "{name = " + name;
  if (object) text += "; object = " + *object;
  if (!userInfo.empty()) text += "; userInfo = " + userInfo.description();
  return text + "}";
}

// --- Posting ---

void LaunchAgentCommand::postNotificationToDaemon(const std::string& name,
                                                  const Dictionary& userInfo) {
  Dictionary info = userInfo;
  info.set(kUsernameKey, userName_);
  try {
    sendToDaemon(name, info);
  } catch (...) {
    // One event that cannot be told never ends the agent.
  }
}

void LaunchAgentCommand::sendToDaemon(const std::string& name, const Dictionary& userInfo) {
  if (!daemonNotificationCenter_)
    daemonNotificationCenter_ = std::make_shared<VESKNotificationCenter>();
  daemonNotificationCenter_->postNotificationNameOptions(name, std::nullopt, userInfo,
                                                         kPostOptions);
}

bool LaunchAgentCommand::respondsToSelector(std::string_view selector) const {
  return selector == "userName" || selector == "postNotificationToDaemon:userInfo:";
}

// --- Listeners ---

void LaunchAgentCommand::handle(Handler handler, const AgentNotification& notification) {
  // One event that fails is logged; it never ends the agent.
  try {
    (this->*handler)(notification);
  } catch (const std::exception& failure) {
    VKLogging::logEventAndPrintVerbose("Handling {} failed: {}", notification.name, failure.what());
  } catch (...) {
    VKLogging::logEventAndPrintVerbose("Handling {} failed", notification.name);
  }
}

void LaunchAgentCommand::observeWorkspace(const std::string& name, Handler handler) {
  workspaceObservers_.push_back(workspace().addObserver(
      name, [this, handler](const std::string& posted, const Dictionary& info) {
        handle(handler, AgentNotification{posted, std::nullopt, info});
      }));
}

void LaunchAgentCommand::observeDistributed(const std::optional<std::string>& name,
                                            Handler handler) {
  distributedObservers_.push_back(notificationCenter_->addObserver(
      name, [this, handler](const std::string& posted, const std::optional<std::string>& object,
                            const Dictionary& info) {
        handle(handler, AgentNotification{posted, object, info});
      }));
}

void LaunchAgentCommand::registerEventListeners() {
  registerActivationEventListener();
  registerWorkspaceEventListeners();
  registerDistributedNotificationCenterEventListeners();
  registerForDexloMessageRelayedFromDaemon();
}

void LaunchAgentCommand::registerActivationEventListener() {
  VKLogging::printlnVerbose("Installing application activation event handler...");
  observeWorkspace(kDidActivateApplication, &LaunchAgentCommand::modernActivatedApplication);
}

void LaunchAgentCommand::registerWorkspaceEventListeners() {
  VKLogging::printlnVerbose("Installing application launching event handler...");
  observeWorkspace(kWillLaunchApplication, &LaunchAgentCommand::launchingApplication);
  checkingLaunches_ = true;
  VKLogging::printlnVerbose("Installing application launched event handler...");
  observeWorkspace(kDidLaunchApplication, &LaunchAgentCommand::launchedApplication);
  VKLogging::printlnVerbose("Installing application terminated event handler...");
  observeWorkspace(kDidTerminateApplication, &LaunchAgentCommand::terminatedApplication);
  VKLogging::printlnVerbose("Installing system sleep event handler...");
  observeWorkspace(kWillSleep, &LaunchAgentCommand::systemSleep);
  VKLogging::printlnVerbose("Installing system wake event handler...");
  observeWorkspace(kDidWake, &LaunchAgentCommand::systemWake);
  VKLogging::printlnVerbose("Installing system power off event handler...");
  observeWorkspace(kWillPowerOff, &LaunchAgentCommand::systemPowerOff);
  VKLogging::printlnVerbose("Installing workspace activation event handler...");
  observeWorkspace(kSessionDidBecomeActive, &LaunchAgentCommand::workspaceActivated);
  // The agent's own words for it, "off" included.
  VKLogging::printlnVerbose("Installing workspace deactivation off event handler...");
  observeWorkspace(kSessionDidResignActive, &LaunchAgentCommand::workspaceDeactivated);
}

void LaunchAgentCommand::registerDistributedNotificationCenterEventListeners() {
  VKLogging::printlnVerbose("Installing screensaver start event handler...");
  observeDistributed(kScreenSaverDidStart, &LaunchAgentCommand::screenSaverActivated);
  VKLogging::printlnVerbose("Installing screensaver stop event handler...");
  observeDistributed(kScreenSaverDidStop, &LaunchAgentCommand::screenSaverDeactivated);
  VKLogging::printlnVerbose("Installing screen lock event handler...");
  observeDistributed(kScreenIsLocked, &LaunchAgentCommand::screenLocked);
  VKLogging::printlnVerbose("Installing screen unlock event handler...");
  observeDistributed(kScreenIsUnlocked, &LaunchAgentCommand::screenUnlocked);
  VKLogging::printlnVerbose("Installing user logout event handler...");
  observeDistributed(logoutEventName(), &LaunchAgentCommand::userLogOut);
  VKLogging::printlnVerbose("Installing survo event handler...");
  observeDistributed("com.vesksoftware.vesk.survoEvent", &LaunchAgentCommand::survoStarting);
  VKLogging::printlnVerbose("Installing update badges event handler...");
  observeDistributed("com.vesksoftware.vesk.updateBadgeQuantity",
                     &LaunchAgentCommand::updateBadgeQuantityDelayed);
  observeDistributed("com.vesksoftware.vesk.stopDaemon", &LaunchAgentCommand::stopAgent);
  observeDistributed("com.vesksoftware.vesk.manage", &LaunchAgentCommand::removeAgent);
  // Delivered at once on this platform: nothing here is ever suspended.
  observeDistributed("com.vesksoftware.vesk.didReceiveNotification",
                     &LaunchAgentCommand::notificationMessageActivated);
  if (allNotifications_) {
    VKLogging::printlnVerbose("Installing the *any* event handler...");
    observeDistributed(std::nullopt, &LaunchAgentCommand::handleAnyNotification);
  }
}

void LaunchAgentCommand::registerDeactivatedListeners() {
  observeWorkspace(kSessionDidBecomeActive, &LaunchAgentCommand::workspaceActivated);
}

void LaunchAgentCommand::unregisterListeners() {
  for (const Workspace::ObserverId id : workspaceObservers_) workspace().removeObserver(id);
  for (const DistributedNotificationCenter::ObserverId id : distributedObservers_)
    notificationCenter_->removeObserver(id);
  workspaceObservers_.clear();
  distributedObservers_.clear();
  checkingLaunches_ = false;
}

std::string LaunchAgentCommand::logoutEventName() const { return logoutNotificationName(); }

// --- What the agent reports ---

void LaunchAgentCommand::postWorkspaceActivatedMessageToDaemon() {
  postNotificationToDaemon("com.vesksoftware.vesk.workspaceActivated",
                           workspace().activeApplication());
}

void LaunchAgentCommand::grabAlreadyRunningApps() {
  // What ran before the agent started is checked against the restricted list too.
  for (const Dictionary& record : workspace().launchedApplications()) {
    postNotificationToDaemon("com.vesksoftware.vesk.appLaunchingEvent", record);
    if (enfStrat_) enfStrat_->launchingApplication(record);
    postNotificationToDaemon("com.vesksoftware.vesk.appLaunchedEvent", record);
  }
}

void LaunchAgentCommand::activatedApplication() {
  if (!activated_) checkShouldBeActive();
  if (activated_) modernActivatedApplication({});
}

void LaunchAgentCommand::enforceAtExec(const ProcessEvent& event) {
  // Every program, not only what the desktop launches as an application, is checked at its
  // exec, while the event still holds the process: a kill then reaches this very process or
  // none, and arrives before the program has done much.
  if (!checkingLaunches_ || !enfStrat_ || event.path.empty()) return;
  checkedAtExec_ = event.pid;
  const Value entry = BSDProcessList::processEntry(ProcessRecord{event.pid, event.uid, event.path});
  const Dictionary* process = entry.dictionary();
  if (process == nullptr || process->empty()) return;
  try {
    enfStrat_->checkProcess(*process);
  } catch (const std::exception& failure) {
    VKLogging::logEventAndPrintVerbose("Checking {} failed: {}", event.path, failure.what());
  }
}

void LaunchAgentCommand::modernActivatedApplication(const AgentNotification&) {
  // A front window of no known application has no path, and nothing is said of it.
  const Dictionary record = workspace().activeApplication();
  if (record.contains(kApplicationPathKey))
    postNotificationToDaemon("com.vesksoftware.vesk.appActivationEvent", record);
}

void LaunchAgentCommand::launchingApplication(const AgentNotification& notification) {
  if (enfStrat_ && enfStrat_->command() != nullptr &&
      enfStrat_->command()->respondsToSelector("postNotificationToDaemon:userInfo:"))
    postNotificationToDaemon("com.vesksoftware.vesk.appLaunchingEvent", notification.userInfo);
  if (!enfStrat_) return;
  // The exec of this very process has just been checked; a second check would report a
  // match twice.
  const Value& pid = notification.userInfo[kApplicationProcessIdentifierKey];
  if (checkedAtExec_ && !pid.isNil() && pid.integerValue() == *checkedAtExec_) return;
  enfStrat_->launchingApplication(notification.userInfo);
}

void LaunchAgentCommand::launchedApplication(const AgentNotification& notification) {
  postNotificationToDaemon("com.vesksoftware.vesk.appLaunchedEvent", notification.userInfo);
}

void LaunchAgentCommand::terminatedApplication(const AgentNotification& notification) {
  postNotificationToDaemon("com.vesksoftware.vesk.appTerminatedEvent", notification.userInfo);
  activatedApplication();
}

void LaunchAgentCommand::systemSleep(const AgentNotification&) {
  stopFewSecondsTimer();
  postNotificationToDaemon("com.vesksoftware.vesk.systemSleepEvent", {});
  VESKNotificationCenter::waitForPosts(kPostsBeforeSleepSeconds);
}

void LaunchAgentCommand::systemWake(const AgentNotification&) {
  startFewSecondsTimer();
  postNotificationToDaemon("com.vesksoftware.vesk.systemWakeEvent",
                           workspace().activeApplication());
}

void LaunchAgentCommand::systemPowerOff(const AgentNotification&) {
  stopFewSecondsTimer();
  postNotificationToDaemon("com.vesksoftware.vesk.systemPowerOffEvent", {});
  VESKNotificationCenter::waitForPosts(kPostsBeforeSleepSeconds);
}

void LaunchAgentCommand::workspaceActivated(const AgentNotification&) {
  activated_ = true;
  VKLogging::printlnVerbose("Workspace activated for user {}", userName_);
  startFewSecondsTimer();
  unregisterListeners();
  registerEventListeners();
  postWorkspaceActivatedMessageToDaemon();
}

void LaunchAgentCommand::workspaceDeactivated(const AgentNotification&) {
  activated_ = false;
  VKLogging::printlnVerbose("Workspace deactivated for user {}", userName_);
  stopFewSecondsTimer();
  unregisterListeners();
  registerDeactivatedListeners();
  postNotificationToDaemon("com.vesksoftware.vesk.workspaceDeactivated", {});
}

void LaunchAgentCommand::screenSaverActivated(const AgentNotification& notification) {
  postNotificationToDaemon("com.vesksoftware.vesk.screensaverActivatedEvent",
                           notification.userInfo);
}

void LaunchAgentCommand::screenSaverDeactivated(const AgentNotification&) {
  postNotificationToDaemon("com.vesksoftware.vesk.screensaverDeactivatedEvent",
                           workspace().activeApplication());
}

void LaunchAgentCommand::screenLocked(const AgentNotification&) {
  postNotificationToDaemon("com.vesksoftware.vesk.screenLockedEvent", {});
}

void LaunchAgentCommand::screenUnlocked(const AgentNotification&) {
  postNotificationToDaemon("com.vesksoftware.vesk.screenUnlockedEvent",
                           workspace().activeApplication());
}

void LaunchAgentCommand::survoStarting(const AgentNotification&) {
  postNotificationToDaemon("com.vesksoftware.vesk.survoEvent", workspace().activeApplication());
}

void LaunchAgentCommand::handleAnyNotification(const AgentNotification& notification) {
  if (notification.name == kIgnoredNotification) return;
  VKLogging::printlnVerbose("Received notification (User: {}): {}", userName_,
                            notification.description());
}

}  // namespace vesk
