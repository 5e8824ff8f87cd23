// What the agent does in the user's session when the daemon asks: run a policy for Dexlo and
// stream its progress back, stop it, enrol the user in MDM, take an inventory, show a message,
// refresh the Dexlo badge; and what it does when the user clicks one of the client's
// notifications.
#include <fmt/format.h>

#include <thread>

#include "agent/LaunchAgentCommand.h"
#include "config/VESKPrefsFile.h"
#include "foundation/Paths.h"
#include "logging/VKLogging.h"
#include "notifications/DaemonObserverEndpoint.h"

namespace vesk {
namespace {

constexpr const char* kResponseEvent = "com.vesksoftware.vesk.veskAgentResponseEvent";
constexpr const char* kVeskTool = "/usr/local/vesk/bin/vesk";
constexpr const char* kResponseTypeKey = "ResponseType";
constexpr const char* kMdmEnrolled = "The computer was successfully enrolled in MDM";
constexpr const char* kCoreErrorDomain = "com.vesksoftware.core.errors";
constexpr const char* kHelperBundle = "/Library/Application Support/VESK/bin/veskHelper.app";
constexpr double kBadgeRefreshDelay = 2.0;
// How long a going agent waits for its background threads (a message window may stay open).
constexpr double kJobsAtEndSeconds = 10.0;
// EINVAL: what a request with a value of the wrong kind gets.
constexpr int kInvalidRequestCode = 22;

Dictionary withResponse(Dictionary request, const char* type) {
  request.set(kResponseTypeKey, type);
  return request;
}

// The text of `key` when it is a string; "" when absent or of another kind.
std::string text(const Dictionary& info, std::string_view key) {
  const std::string* value = info[key].string();
  return value ? *value : "";
}

// The agent as the daemon's observer sees it.
class RequestObserver : public SelectorTarget {
 public:
  explicit RequestObserver(LaunchAgentCommand& command) : command_(command) {}
  bool respondsToSelector(std::string_view selector) override {
    return selector == "requestFromVeskDaemon:";
  }
  void performSelector(std::string_view, const Dictionary& userInfo) override {
    command_.requestFromVeskDaemon(userInfo);
  }

 private:
  LaunchAgentCommand& command_;
};

}  // namespace

// --- Background threads ---

void LaunchAgentCommand::detachThread(std::function<void()> work) {
  {
    std::lock_guard<std::mutex> hold(jobsLock_);
    ++jobs_;
  }
  std::thread([this, work = std::move(work)] {
    try {
      work();
    } catch (const std::exception& failure) {
      VKLogging::logEventAndPrintVerbose("A background job of the agent failed: {}",
                                         failure.what());
    } catch (...) {
      VKLogging::logEventAndPrintVerbose("A background job of the agent failed");
    }
    std::lock_guard<std::mutex> hold(jobsLock_);
    if (--jobs_ == 0) jobsEnded_.notify_all();
  }).detach();
}

void LaunchAgentCommand::waitForJobs() {
  for (const std::shared_ptr<Timer>& timer : badgeTimers_) timer->invalidate();
  std::unique_lock<std::mutex> hold(jobsLock_);
  jobsEnded_.wait_for(hold, std::chrono::duration<double>(kJobsAtEndSeconds),
                      [this] { return jobs_ == 0; });
}

// --- The daemon's requests ---

void LaunchAgentCommand::registerForDexloMessageRelayedFromDaemon() {
  // Registered once for the life of the agent: the endpoint registers again by itself with
  // every daemon that takes the name, and a session switch must not add a second observer.
  if (daemonObserver_) return;
  daemonObserver_ = std::make_unique<DaemonObserverEndpoint>(
      std::make_shared<RequestObserver>(*this),
      "requestFromVeskDaemon:", "com.vesksoftware.vesk.veskAgentRequestEvent", kDaemonCenterName);
}

void LaunchAgentCommand::requestFromVeskDaemon(const Dictionary& userInfo) {
  try {
    const Value& addressee = userInfo["LocalUsername"];
    if (!addressee.isNil() && !addressee.isString()) {
      // Whom it is for cannot be told: serving it could act for another user.
      VKLogging::logEvent("Request for a user that is not a name ignored: {}",
                          userInfo.description());
      return;
    }
    const std::string localUsername = text(userInfo, "LocalUsername");
    // Meant for another user's agent; root's agent serves everyone.
    if (!localUsername.empty() && !userName_.empty() && userName_ != "root" &&
        userName_ != localUsername)
      return;

    const std::string entityType = userInfo["EntityType"].stringValue();
    const std::string requestType = userInfo["RequestType"].stringValue();
    if (entityType == "policy") {
      if (requestType == "TriggerPolicy")
        dexloPolicyStartRequest(userInfo);
      else if (requestType == "Kill")
        dexloPolicyKillRequest(userInfo);
      else
        VKLogging::logEventAndPrintVerbose(
            "Policy request type of  \"{}\" is unhandled by the agent: {}", requestType,
            userInfo.description());
    } else if (entityType == "configprofile") {
      if (requestType == "EnableUserLevelMdm")
        startEnableUserLevelMdmRequest(userInfo);
      else
        VKLogging::logEvent("Config profile request type of \"{}\" is unhandled by the agent: {}",
                            requestType, userInfo.description());
    } else if (entityType == "general") {
      if (requestType == "Survo")
        dexloSurvoStartRequest(userInfo);
      else if (requestType == "TriggerNotify")
        updateBadgeQuantity();
      else if (requestType == "DisplayMessage" && userInfo["Message"].isString())
        displayMessage(text(userInfo, "Message"));
      else
        VKLogging::logEvent("General request type of \"{}\" is unhandled by the agent: {}",
                            requestType, userInfo.description());
    } else {
      VKLogging::logEvent("Request entity type of {} unhandled by the agent: {}", entityType,
                          userInfo.description());
    }
  } catch (const std::exception& failure) {
    VKLogging::logEventAndPrintVerbose("Serving a request from the daemon failed: {}",
                                       failure.what());
  }
}

Dictionary LaunchAgentCommand::policyInfo() const {
  std::lock_guard<std::mutex> hold(policyLock_);
  return policyInfo_;
}

void LaunchAgentCommand::sendMessageReceived(const Dictionary& request) {
  postNotificationToDaemon(kResponseEvent, withResponse(request, "MessageReceived"));
}

void LaunchAgentCommand::sendPolicyStarted(pid_t processId) {
  Dictionary response = withResponse(policyInfo(), "Started");
  response.set("ProcessId", static_cast<long long>(processId));
  postNotificationToDaemon(kResponseEvent, response);
}

void LaunchAgentCommand::taskStartedProcess(VESKTask& task) { sendPolicyStarted(task.processId()); }

void LaunchAgentCommand::task(VESKTask&, const std::string& readString) {
  Dictionary response = withResponse(policyInfo(), "OutputData");
  response.set("Data", readString);
  postNotificationToDaemon(kResponseEvent, response);
}

void LaunchAgentCommand::dexloPolicyStartRequest(const Dictionary& request) {
  {
    // Both before the daemon hears of the request: a kill it sends in answer must find them.
    std::lock_guard<std::mutex> hold(policyLock_);
    policyInfo_ = request;
    policyKilled_ = false;
  }
  sendMessageReceived(request);

  const Value& entityId = request["EntityId"];
  if (!entityId.isNil() && !entityId.isNumber() && !entityId.isString()) {
    // Which policy is meant cannot be told; running another one would be worse than none.
    VKLogging::logEventAndPrintVerbose("Policy request with an id that is no number: {}",
                                       request.description());
    Dictionary response = withResponse(request, "PolicyError");
    response.set("Error", Error(kCoreErrorDomain, kInvalidRequestCode,
                                {{kLocalizedDescriptionKey, "The policy id is not a number"}}));
    postNotificationToDaemon(kResponseEvent, response);
    return;
  }
  const std::int64_t policyId = entityId.integerValue();
  VKLogging::printlnVerbose("Starting policy id {}", policyId);

  std::string user;
  if (const std::string ksvUrl = text(request, "KsvUrl"); !ksvUrl.empty()) {
    std::lock_guard<std::mutex> hold(dexloPrefsLock_);
    user = dexloPrefs_->retrieveLoggedInUserWithKsvUrl(
        ksvUrl, request["AllowInvalidCertificate"].boolValue());
  }
  const Command command{fsPath(kVeskTool), "policy",    "-id", std::to_string(policyId),
                        "-showSteps",      "-username", user,  "-dexloOnly",
                        "-forceNoSurvo"};

  std::shared_ptr<VKLocalTask> runner;
  {
    std::lock_guard<std::mutex> hold(policyLock_);
    if (!policyLocalTask_) {
      policyLocalTask_ = std::make_shared<VKLocalTask>();
      policyLocalTask_->setDelegate(taskDelegate_);
    }
    runner = policyLocalTask_;
  }
  // A second start while a policy runs waits for it; from now on that run's responses carry
  // this request's keys. A kill served meanwhile was for that run, not this one. The run is
  // judged, and its end told, before the next may start.
  std::unique_lock<std::mutex> running(policyRunLock_, std::try_to_lock);
  if (!running.owns_lock()) {
    running.lock();
    std::lock_guard<std::mutex> hold(policyLock_);
    policyKilled_ = false;
  }
  Error error;
  // Error text joins the output: Dexlo shows the user both.
  (void)runner->executeAndAnswerPromptWith(command, std::nullopt, &error, false, false);

  Dictionary response;
  {
    std::lock_guard<std::mutex> hold(policyLock_);
    response = policyInfo_;
    if (!error.domain().empty() && !policyKilled_) {
      response.set(kResponseTypeKey, "PolicyError");
      response.set("Error", error);
    } else {
      response.set(kResponseTypeKey, "Finished");
    }
  }
  postNotificationToDaemon(kResponseEvent, response);
}

void LaunchAgentCommand::dexloPolicyKillRequest(const Dictionary&) {
  VKLogging::printlnVerbose("Killing a policy");
  std::shared_ptr<VKLocalTask> runner;
  {
    // Marked before the signal goes: the run may end, and be judged, the moment it arrives.
    std::lock_guard<std::mutex> hold(policyLock_);
    policyKilled_ = true;
    runner = policyLocalTask_;
  }
  if (runner) runner->terminate();
}

void LaunchAgentCommand::processPolicy(const AgentNotification& notification) {
  const Value& policyId = notification.userInfo["policyid"];
  if (policyId.isNil() || policyId.stringValue().empty()) return;
  const Dictionary request{{"EntityId", static_cast<long long>(policyId.integerValue())}};
  detachThread([this, request] { dexloPolicyStartRequest(request); });
}

void LaunchAgentCommand::startEnableUserLevelMdmRequest(const Dictionary& request) {
  detachThread([this, request] { enableUserLevelMdmRequest(request); });
}

void LaunchAgentCommand::enableUserLevelMdmRequest(const Dictionary& request) {
  VKLogging::printlnVerbose("Enabling user level MDM");
  VKLocalTask runner;
  Error error;
  const std::string output = runner.execute({fsPath(kVeskTool), "mdm", "-userLevelMdm"}, &error);
  if (output.find(kMdmEnrolled) != std::string::npos) {
    postNotificationToDaemon(kResponseEvent, withResponse(request, "Finished"));
    return;
  }
  Dictionary response = withResponse(request, "Error");
  response.set("ErrorMsg", output);
  // The tool's exit status where it failed, 1 where it ended well but did not enrol.
  const std::int64_t code = error.domain().empty() ? 1 : error.code();
  response.set("Error", Error(kCoreErrorDomain, code,
                              {{kLocalizedDescriptionKey, "User level MDM enrollment failed"}}));
  postNotificationToDaemon(kResponseEvent, response);
}

void LaunchAgentCommand::dexloSurvoStartRequest(const Dictionary& request) {
  detachThread([this, request] { performBackgroundSurvo(request); });
}

void LaunchAgentCommand::performBackgroundSurvo(const Dictionary& request) {
  VKLocalTask runner;
  (void)runner.execute({fsPath(kVeskTool), "survo"});
  postNotificationToDaemon(kResponseEvent, withResponse(request, "Finished"));
}

std::string LaunchAgentCommand::lookUpDexloPath() {
  try {
    return VESKPrefsFile().dexloAppPath().value_or("");
  } catch (const std::exception&) {
    return "";  // no management preferences: no Dexlo either
  }
}

// --- Messages and the badge ---

void LaunchAgentCommand::displayMessage(const std::string& message) {
  VKLogging::logEventAndPrintVerbose("Displaying a message for this user");
  // A window stays until the user closes it: each has a thread of its own.
  detachThread([this, message] { displayMessageThread(message); });
}

void LaunchAgentCommand::displayMessageThread(const std::string& message) {
  const std::string bundle = fsPath(kHelperBundle);
  const Command command{fmt::format("{}/Contents/MacOS/veskHelper", bundle),
                        "-windowType",
                        "utility",
                        "-icon",
                        fmt::format("{}/Contents/Resources/Message.png", bundle),
                        "-description",
                        message,
                        "-button1",
                        "OK",
                        "-defaultButton",
                        "1"};
  VKLocalTask runner;
  Error error;
  (void)runner.execute(command, &error);
  if (!error.domain().empty()) VKLogging::logError(&error, "Error while displaying a message");
}

void LaunchAgentCommand::updateBadgeQuantityDelayed(const AgentNotification&) {
  std::erase_if(badgeTimers_,
                [](const std::shared_ptr<Timer>& timer) { return !timer->isValid(); });
  // Each notification has its refresh; the refresh itself runs on a thread of its own, so
  // that this thread, which kills restricted programs at their exec, never waits for the tool.
  badgeTimers_.push_back(timers().scheduledTimer(kBadgeRefreshDelay, false, [this](Timer&) {
    detachThread([this] { updateBadgeQuantity(); });
  }));
}

void LaunchAgentCommand::updateBadgeQuantity() {
  std::lock_guard<std::mutex> hold(badgeLock_);
  VKLocalTask runner;
  Error ignored;
  (void)runner.execute({fsPath(kVeskTool), "notify"}, &ignored);
}

void LaunchAgentCommand::notificationMessageActivated(const AgentNotification& notification) {
  VKLogging::printlnVerbose("Notification action was clicked.");
  std::unique_ptr<DexloNotifications> dexlo = makeDexloNotifications();
  if (dexloPath().empty()) setDexloPath(lookUpDexloPath());
  dexlo->setDexloPath(dexloPath());
  if (DexloNotifications::isDexloNotification(notification.userInfo))
    dexlo->processDexloNotification(notification.userInfo);
  else
    processPolicy(notification);
}

std::unique_ptr<DexloNotifications> LaunchAgentCommand::makeDexloNotifications() {
  return std::make_unique<DexloNotifications>([this] { return session_->consoleUser(); });
}

}  // namespace vesk
