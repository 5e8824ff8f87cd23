#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/VKCommand.h"
#include "dexlo/DexloNotifications.h"
#include "dexlo/DexloPreferences.h"
#include "foundation/RunLoop.h"
#include "foundation/VESKSystemInformation.h"
#include "foundation/Value.h"
#include "notifications/DistributedNotificationCenter.h"
#include "notifications/VESKNotificationCenter.h"
#include "platform/SessionLayer.h"
#include "restrictions/EnforceRestrictionsAgentStrategy.h"
#include "task/VKLocalTask.h"

namespace vesk {

class DaemonObserverEndpoint;

// A notification as its handler sees it.
struct AgentNotification {
  std::string name;
  std::optional<std::string> object;
  Dictionary userInfo;

  std::string description() const;
};

// The agent itself, and the verb every command line falls through to: one runs in each user's
// graphical session. It replaces an older agent of the same user, relays the session's events
// to the root daemon, enforces the restricted-software list at every exec and in a pass every
// fifteen seconds, and serves the daemon's requests, until the daemon tells it to stop or
// remove itself.
//
// Everything but the daemon's requests and the background jobs runs on the main thread:
// start-up, the run loop, every handler and the timers. A request is served on a thread of its
// own; MDM enrolment, inventory, a policy started from a click, each message and each badge
// refresh run on threads of their own, which the agent waits for when it goes.
class LaunchAgentCommand : public VKCommand, public EnforcementCommand {
 public:
  static constexpr const char* kVerbName = "launchAgent";

  ~LaunchAgentCommand() override;

  std::string className() const override { return "LaunchAgentCommand"; }
  // The blank between the tab and "vesk" is the agent's own; kept as it always was.
  std::string helpText() const override { return "\nUsage:\t vesk launchAgent\n"; }
  std::string shortHelpText() const override {
    return "Sends events on a per user basis to the vesk daemon.";
  }
  bool hiddenVerb() const override { return true; }
  bool rootRequired() const override { return false; }

  // Fields.
  bool allNotifications() const { return allNotifications_; }
  void setAllNotifications(bool value) { allNotifications_ = value; }
  bool activated() const { return activated_; }
  void setActivated(bool value) { activated_ = value; }
  Workspace& workspace() { return session_->workspace(); }
  DistributedNotificationCenter& notificationCenter() { return *notificationCenter_; }
  const std::shared_ptr<VESKNotificationCenter>& daemonNotificationCenter() const {
    return daemonNotificationCenter_;
  }
  std::optional<std::string> userName() override { return userName_; }
  void setUserName(std::string name) { userName_ = std::move(name); }
  EnforceRestrictionsAgentStrategy* enfStrat() const { return enfStrat_.get(); }
  uid_t uid() const { return uid_; }
  bool exitLaunchAgent() const { return exitLaunchAgent_; }
  void setExitLaunchAgent(bool value) { exitLaunchAgent_ = value; }
  std::string dexloPath() const;
  void setDexloPath(std::string path);
  const VESKSystemInformation& systemInfo() const { return systemInfo_; }
  // The request that started the running policy.
  Dictionary policyInfo() const;

  // Start-up and the single-instance rule.
  // What execute does before its loop: false when this agent is to end at once.
  bool startAgent();
  bool elevatePrivileges();
  bool isTenNine() const;
  bool isGuestAccount() const;
  bool isGuestAccountOnTenNine() const { return isTenNine() && isGuestAccount(); }
  bool isAgentAlreadyRunning();
  bool guestAccountOnTenNineAlreadyRunning() {
    return isGuestAccountOnTenNine() && isAgentAlreadyRunning();
  }
  void checkAgentAlreadyRunningForCurrentUser();
  void writePIDFile();
  // "/Library/Application Support/VESK/bin/<user>.pid", resolved.
  std::string pidFilePath() const;
  void checkShouldBeActive();

  // The enforcement pass every fifteen seconds.
  void startFewSecondsTimer();
  void stopFewSecondsTimer();
  void fewSecondHandler(Timer& timer);

  // The ways the agent ends.
  void userLogOut(const AgentNotification& notification);
  void stopAgent(const AgentNotification& notification);
  void removeAgent(const AgentNotification& notification);

  // The session event relay.
  void postNotificationToDaemon(const std::string& name, const Dictionary& userInfo) override;
  bool respondsToSelector(std::string_view selector) const override;
  void registerEventListeners();
  void registerActivationEventListener();
  void registerWorkspaceEventListeners();
  void registerDistributedNotificationCenterEventListeners();
  void registerDeactivatedListeners();
  void unregisterListeners();
  void postWorkspaceActivatedMessageToDaemon();
  void grabAlreadyRunningApps();
  void activatedApplication();
  std::string logoutEventName() const;

  void modernActivatedApplication(const AgentNotification& notification);
  void launchingApplication(const AgentNotification& notification);
  void launchedApplication(const AgentNotification& notification);
  void terminatedApplication(const AgentNotification& notification);
  void systemSleep(const AgentNotification& notification);
  void systemWake(const AgentNotification& notification);
  void systemPowerOff(const AgentNotification& notification);
  void workspaceActivated(const AgentNotification& notification);
  void workspaceDeactivated(const AgentNotification& notification);
  void screenSaverActivated(const AgentNotification& notification);
  void screenSaverDeactivated(const AgentNotification& notification);
  void screenLocked(const AgentNotification& notification);
  void screenUnlocked(const AgentNotification& notification);
  void survoStarting(const AgentNotification& notification);
  // Runs the badge refresh 2.0 s from now.
  void updateBadgeQuantityDelayed(const AgentNotification& notification);
  void notificationMessageActivated(const AgentNotification& notification);
  void handleAnyNotification(const AgentNotification& notification);

  // The daemon's requests.
  void registerForDexloMessageRelayedFromDaemon();
  void requestFromVeskDaemon(const Dictionary& userInfo);
  // Runs the policy that `request` names for Dexlo and streams its progress back; returns
  // when the run has ended.
  void dexloPolicyStartRequest(const Dictionary& request);
  void dexloPolicyKillRequest(const Dictionary& request);
  void sendMessageReceived(const Dictionary& request);
  void sendPolicyStarted(pid_t processId);
  void processPolicy(const AgentNotification& notification);
  void startEnableUserLevelMdmRequest(const Dictionary& request);
  void enableUserLevelMdmRequest(const Dictionary& request);
  void dexloSurvoStartRequest(const Dictionary& request);
  void performBackgroundSurvo(const Dictionary& request);
  // The policy tool's progress, from the task runner.
  void taskStartedProcess(VESKTask& task);
  void task(VESKTask& task, const std::string& readString);
  // The Dexlo application's path, from the management preferences; "" when they name none.
  std::string lookUpDexloPath();

  // Messages to the user and the Dexlo badge.
  void displayMessage(const std::string& message);
  void displayMessageThread(const std::string& message);
  void updateBadgeQuantity();

 protected:
  friend class VKCommand;
  LaunchAgentCommand();

  void preInitialize() override;
  void onInitialize() override;
  int execute() override;

  // Where the agent meets the machine; tests put fakes in their place.
  virtual std::unique_ptr<UserSession> makeUserSession();
  virtual TimerSource& timers() { return RunLoop::current(); }
  virtual ProcessTable& processTable() { return ProcessTable::system(); }
  // Posts `userInfo` (with "Username" already in it) through the daemon's center.
  virtual void sendToDaemon(const std::string& name, const Dictionary& userInfo);
  // Ends the process once what was posted has reached the daemon.
  virtual void exitProcess(int status);
  virtual std::unique_ptr<DexloNotifications> makeDexloNotifications();
  // Runs `work` on a new thread; the agent waits for it before it goes. Failures are logged.
  void detachThread(std::function<void()> work);

 private:
  using Handler = void (LaunchAgentCommand::*)(const AgentNotification&);

  void handle(Handler handler, const AgentNotification& notification);
  void observeWorkspace(const std::string& name, Handler handler);
  void observeDistributed(const std::optional<std::string>& name, Handler handler);
  // Every exec of the machine, before the launch is reported: the restricted list's check.
  void enforceAtExec(const ProcessEvent& event);
  // Stops the pending badge refreshes and waits a while for the background threads to end.
  void waitForJobs();
  // Drops the user id to the one the agent started with, runs launchctl with `arguments`,
  // and ends the process.
  void unloadSelf(const std::vector<std::string>& arguments);

  bool allNotifications_ = false;
  bool activated_ = false;
  std::unique_ptr<UserSession> session_;
  DistributedNotificationCenter* notificationCenter_ = nullptr;
  std::shared_ptr<VESKNotificationCenter> daemonNotificationCenter_;
  std::string userName_;
  std::unique_ptr<EnforceRestrictionsAgentStrategy> enfStrat_;
  std::shared_ptr<Timer> fewSecondsTimer_;
  uid_t uid_ = 0;
  bool exitLaunchAgent_ = false;
  VESKSystemInformation systemInfo_;

  // Touched by the daemon's requests on their threads as well.
  mutable std::mutex policyLock_;
  std::string dexloPath_;                         // guarded by policyLock_
  std::shared_ptr<VKLocalTask> policyLocalTask_;  // guarded by policyLock_
  Dictionary policyInfo_;                         // guarded by policyLock_
  bool policyKilled_ = false;                     // guarded by policyLock_
  std::shared_ptr<VESKTaskDelegate> taskDelegate_;
  // One run of the policy tool at a time: the task runner runs one command at once.
  std::mutex policyRunLock_;
  std::mutex dexloPrefsLock_;  // the preferences object is not for two threads at once
  std::unique_ptr<DexloPreferences> dexloPrefs_;
  std::mutex badgeLock_;  // one badge refresh at a time
  std::vector<std::shared_ptr<Timer>> badgeTimers_;
  // The threads detachThread started that are still running.
  std::mutex jobsLock_;
  std::condition_variable jobsEnded_;
  int jobs_ = 0;  // guarded by jobsLock_

  std::vector<Workspace::ObserverId> workspaceObservers_;
  std::vector<DistributedNotificationCenter::ObserverId> distributedObservers_;
  // Whether the launch listener is installed: the exec check runs only then, as the launch
  // handler's would.
  bool checkingLaunches_ = false;
  // The process whose exec was just checked, so that its launch is not checked twice.
  std::optional<pid_t> checkedAtExec_;
  std::unique_ptr<DaemonObserverEndpoint> daemonObserver_;
};

}  // namespace vesk
