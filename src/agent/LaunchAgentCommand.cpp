#include "agent/LaunchAgentCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "foundation/FileManager.h"
#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"
#include "logging/VKLogging.h"
#include "notifications/DaemonObserverEndpoint.h"
#include "notifications/SystemBus.h"
#include "platform/ProcessSecurity.h"
#include "platform/Users.h"
#include "restrictions/BSDProcessList.h"
#include "restrictions/VESKProcessHandler.h"

namespace vesk {
namespace {

constexpr double kFewSecondsInterval = 15.0;
constexpr const char* kAgentJob = "com.vesksoftware.vesk.agent";
constexpr const char* kAgentJobPlist = "/Library/LaunchAgents/com.vesksoftware.vesk.agent.plist";
// How long a process about to end waits for its last posts to reach the daemon.
constexpr double kLastPostsSeconds = 5.0;

// The PID file's text, if it may be believed: a plain file, not a link, that only root or this
// process's own user could have written. Anything else could name a process of someone else's
// choosing, which the agent would then kill as root.
std::optional<std::string> trustedPidFileText(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  std::optional<std::string> text;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 022) == 0 &&
      (st.st_uid == 0 || st.st_uid == ::geteuid())) {
    char buffer[64];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got >= 0) text = std::string(buffer, static_cast<std::size_t>(got));
  }
  ::close(fd);
  return text;
}

}  // namespace

LaunchAgentCommand::LaunchAgentCommand() = default;
LaunchAgentCommand::~LaunchAgentCommand() {
  if (session_) unregisterListeners();
  waitForJobs();
}

std::string LaunchAgentCommand::dexloPath() const {
  std::lock_guard<std::mutex> hold(policyLock_);
  return dexloPath_;
}

void LaunchAgentCommand::setDexloPath(std::string path) {
  std::lock_guard<std::mutex> hold(policyLock_);
  dexloPath_ = std::move(path);
}

// --- Life cycle ---

void LaunchAgentCommand::preInitialize() {
  allNotifications_ = false;
  activated_ = false;
  // Who started the agent, whatever ids it takes later.
  uid_ = startingUserId();
  userName_ = currentUserShortName();
  // The one connection to the system bus is made now, as the user: the bus knows a peer by
  // the credentials of its connection, and an agent that looked like root to it would pass
  // every other agent's checks. Without it the agent hears nothing from the daemon, so once it
  // is lost the process ends for its supervisor to start it again.
  std::string why;
  if (!exitWhenSystemBusLost(
          [](const std::string& lost) {
            VKLogging::logEventAndPrint("Lost the connection to the system bus ({}); exiting",
                                        lost);
          },
          &why))
    VKLogging::logEventAndPrintVerbose("No system bus ({}): the daemon cannot be reached", why);
  notificationCenter_ = &DistributedNotificationCenter::defaultCenter();
  session_ = makeUserSession();
  session_->start([this](const ProcessEvent& event) { enforceAtExec(event); },
                  [this](const SessionEvent& event) {
                    notificationCenter_->deliverLocally(event.name, std::nullopt, event.userInfo);
                  });
  dexloPrefs_ = std::make_unique<DexloPreferences>([this] { return session_->consoleUser(); });
  taskDelegate_ = std::make_shared<VESKTaskDelegate>();
  taskDelegate_->taskStartedProcess = [this](VESKTask& runner) { taskStartedProcess(runner); };
  taskDelegate_->taskReadString = [this](VESKTask& runner, const std::string& string) {
    task(runner, string);
  };
}

void LaunchAgentCommand::onInitialize() {
  daemonNotificationCenter_ = std::make_shared<VESKNotificationCenter>();
  allNotifications_ = options().contains("allNotifications");
  startFewSecondsTimer();
  postWorkspaceActivatedMessageToDaemon();
}

int LaunchAgentCommand::execute() {
  if (startAgent()) {
    exitLaunchAgent_ = false;
    while (!exitLaunchAgent_) RunLoop::current().runUntil(1.0);
  }
  // Posts travel on a thread of their own: what was said is not lost with the process.
  VESKNotificationCenter::waitForPosts(kLastPostsSeconds);
  return 0;
}

bool LaunchAgentCommand::startAgent() {
  if (!elevatePrivileges()) {
    // The installation has lost its set-user-id bit: the daemon can repair it.
    postNotificationToDaemon("com.vesksoftware.vesk.selfHealAgent", {});
  }
  enfStrat_ = std::make_unique<EnforceRestrictionsAgentStrategy>(processTable());
  enfStrat_->setCommand(this);

  if (guestAccountOnTenNineAlreadyRunning()) {
    VKLogging::logEventAndPrintVerbose(
        "veskAgent for guest account on 10.9 is already running...exiting");
    return false;
  }
  checkAgentAlreadyRunningForCurrentUser();
  writePIDFile();
  checkShouldBeActive();
  postNotificationToDaemon("com.vesksoftware.vesk.agentStart",
                           {{"pid", std::to_string(::getpid())}});
  grabAlreadyRunningApps();
  activatedApplication();
  VKLogging::printlnVerbose("Monitoring for events...");
  return true;
}

std::unique_ptr<UserSession> LaunchAgentCommand::makeUserSession() {
  return std::make_unique<SessionLayer>(
      systemBus(), [](const std::string& line) { VKLogging::logEventAndPrintVerbose("{}", line); });
}

void LaunchAgentCommand::exitProcess(int status) {
  VESKNotificationCenter::waitForPosts(kLastPostsSeconds);
  std::fflush(nullptr);
  // Without running static destructors: the bus and request threads are still at work.
  ::_exit(status);
}

// --- Privileges and the single-instance rule ---

bool LaunchAgentCommand::elevatePrivileges() {
  bool elevated = true;
  if (::setuid(0) != 0) {
    VKLogging::logEventAndPrintVerbose(
        "Warning: VESK Agent is running without elevated user privileges");
    elevated = false;
  }
  if (::setgid(0) != 0) {
    VKLogging::logEventAndPrintVerbose(
        "Warning: VESK Agent is running without elevated group privileges");
    elevated = false;
  }
  return elevated;
}

bool LaunchAgentCommand::isTenNine() const {
  const VESKOperatingSystem system = systemInfo_.currentOperatingSystem();
  return system.isGreaterThanOrEqualToVersionString("10.9") &&
         !system.isGreaterThanOrEqualToVersionString("10.10");
}

bool LaunchAgentCommand::isGuestAccount() const {
  return lowercaseString(userName_) == lowercaseString("Guest");
}

std::string LaunchAgentCommand::pidFilePath() const {
  return fsPath(fmt::format("/Library/Application Support/VESK/bin/{}.pid", userName_));
}

bool LaunchAgentCommand::isAgentAlreadyRunning() {
  const std::optional<std::string> text = trustedPidFileText(pidFilePath());
  if (!text || text->empty()) return false;
  const pid_t pid = intValue(*text);
  return pid > 0 &&
         BSDProcessList::processList(BSDProcessList::getProcessList(processTable()), pid);
}

void LaunchAgentCommand::checkAgentAlreadyRunningForCurrentUser() {
  const std::optional<std::string> text = trustedPidFileText(pidFilePath());
  if (!text) return;
  // The newest agent of a user wins. Text that names no process names none: a kill of pid 0
  // or below would reach a whole group of processes.
  const pid_t pid = intValue(*text);
  if (pid <= 0 || pid == ::getpid()) return;
  VESKProcessHandler(pid, ProcessSerialNumber{}, processTable()).killRunningProcess();
}

void LaunchAgentCommand::writePIDFile() {
  (void)writeFileAtomically(pidFilePath(), fmt::format("{}", ::getpid()),
                            FileAttributes{::geteuid(), ::getegid(), 0644});
}

void LaunchAgentCommand::checkShouldBeActive() {
  const std::optional<std::string> owner = session_->consoleUser();
  // Each state's listeners replace the other's, so none is ever registered twice.
  unregisterListeners();
  if (owner && *owner == userName_) {
    registerEventListeners();
    activated_ = true;
  } else {
    registerDeactivatedListeners();
    activated_ = false;
  }
}

// --- The enforcement timer ---

void LaunchAgentCommand::startFewSecondsTimer() {
  // A timer already running is not stopped: a second start leaves both firing, as the agent
  // always has.
  fewSecondsTimer_ = timers().scheduledTimer(kFewSecondsInterval, true,
                                             [this](Timer& timer) { fewSecondHandler(timer); });
}

void LaunchAgentCommand::stopFewSecondsTimer() {
  if (fewSecondsTimer_) fewSecondsTimer_->invalidate();
}

void LaunchAgentCommand::fewSecondHandler(Timer&) {
  if (!enfStrat_) return;
  try {
    enfStrat_->fewSecondHandler();
  } catch (const std::exception& failure) {
    VKLogging::logEventAndPrintVerbose("The pass over the processes failed: {}", failure.what());
  }
}

// --- How the agent ends ---

void LaunchAgentCommand::userLogOut(const AgentNotification&) {
  postNotificationToDaemon("com.vesksoftware.vesk.userLogOut", workspace().activeApplication());
  (void)::setreuid(uid_, static_cast<uid_t>(-1));
  // Every other agent runs on until its supervisor stops it.
  if (isGuestAccountOnTenNine()) exitLaunchAgent_ = true;
}

void LaunchAgentCommand::stopAgent(const AgentNotification&) {
  unloadSelf({"unload", kAgentJobPlist});
}

void LaunchAgentCommand::removeAgent(const AgentNotification&) {
  unloadSelf({"remove", kAgentJob});
}

void LaunchAgentCommand::unloadSelf(const std::vector<std::string>& arguments) {
  VKLogging::printlnVerbose("Unloading self...");
  // launchctl acts on the launch domain of its real user: the user's own.
  (void)::setreuid(uid_, static_cast<uid_t>(-1));
  std::vector<std::string> command = {toolPath("/bin/launchctl")};
  command.insert(command.end(), arguments.begin(), arguments.end());
  (void)localTask().execute(command);
  exitProcess(0);
}

}  // namespace vesk
