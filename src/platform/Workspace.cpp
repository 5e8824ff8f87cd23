#include "platform/Workspace.h"

#include "foundation/Paths.h"

namespace vesk {
namespace {

// How often, and how far apart, a process of the user is looked at again after its exec.
constexpr int kLooksAgain = 3;
constexpr double kLookAgainInterval = 0.1;
// Processes of the user waiting for their second look; past this, new ones get only the look
// at their first activation.
constexpr std::size_t kCandidatesLimit = 1024;

}  // namespace

Workspace::Workspace(uid_t sessionUser, ProcessTable& table, ProcessEventSource& processes,
                     DesktopApplications& desktop, FrontWindow& frontWindow, TimerSource& timers)
    : sessionUser_(sessionUser),
      table_(table),
      processes_(processes),
      desktop_(desktop),
      frontWindow_(frontWindow),
      timers_(timers) {}

void Workspace::start() {
  if (started_) return;
  started_ = true;
  for (const ProcessRecord& process : table_.listProcesses())
    if (process.uid == sessionUser_) lookAt(process.pid, process.path, false);
  processes_.start([this](const ProcessEvent& event) { processEvent(event); });
  frontWindow_.watch([this] { frontChanged(); });
}

Workspace::ObserverId Workspace::addObserver(const std::string& name, Handler handler) {
  const ObserverId id = nextObserver_++;
  observers_.emplace(name, std::make_pair(id, std::move(handler)));
  return id;
}

void Workspace::removeObserver(ObserverId observer) {
  std::erase_if(observers_,
                [observer](const auto& entry) { return entry.second.first == observer; });
}

void Workspace::removeAllObservers() { observers_.clear(); }

void Workspace::postNotification(const std::string& name, const Dictionary& userInfo) {
  // Observers may come and go while they are called: each is looked up again just before its
  // turn, and one added meanwhile waits for the next notification.
  std::vector<ObserverId> ids;
  const auto [first, last] = observers_.equal_range(name);
  for (auto entry = first; entry != last; ++entry) ids.push_back(entry->second.first);
  for (const ObserverId id : ids) {
    const auto [from, to] = observers_.equal_range(name);
    for (auto entry = from; entry != to; ++entry) {
      if (entry->second.first != id) continue;
      const Handler handler = entry->second.second;  // the entry may go while it runs
      handler(name, userInfo);
      break;
    }
  }
}

void Workspace::processEvent(const ProcessEvent& event) {
  if (event.kind == ProcessEvent::Kind::kExit) {
    candidates_.erase(event.pid);
    const auto found = applications_.find(event.pid);
    if (found == applications_.end()) return;
    const Dictionary record = std::move(found->second.record);
    applications_.erase(found);
    postNotification(kDidTerminateApplication, record);
    return;
  }
  ++execsSeen_;
  // Whatever runs is checked against the restricted list first, before the launch is
  // reported, while the handlers still hold the process.
  if (execHook_) execHook_(event);
  // An application that runs another program in its place has ended as what it was.
  const auto previous = applications_.find(event.pid);
  if (previous != applications_.end() &&
      previous->second.record[kApplicationPathKey].stringValue() != event.path) {
    const Dictionary record = std::move(previous->second.record);
    applications_.erase(previous);
    postNotification(kDidTerminateApplication, record);
  }
  if (event.uid != sessionUser_ || event.path.empty() || applications_.contains(event.pid)) return;
  if (lookAt(event.pid, event.path, true)) return;
  if (candidates_.size() < kCandidatesLimit) {
    candidates_[event.pid] = Candidate{event.path, kLooksAgain};
    lookAgainLater();
  }
}

bool Workspace::lookAt(pid_t pid, const std::string& path, bool report) {
  const std::optional<std::string> groups = table_.controlGroups(pid);
  const std::optional<std::string> id =
      groups ? desktopApplicationIdFromControlGroups(*groups) : std::nullopt;
  if (!id) return false;
  const Dictionary record = recordFor(pid, path, *id);
  applications_[pid] = Application{nextOrder_++, record};
  if (report) {
    postNotification(kWillLaunchApplication, record);
    postNotification(kDidLaunchApplication, record);
  }
  return true;
}

void Workspace::lookAgainLater() {
  if (lookAgain_ && lookAgain_->isValid()) return;
  lookAgain_ = timers_.scheduledTimer(kLookAgainInterval, false, [this](Timer&) {
    lookAgain_.reset();
    std::vector<pid_t> due;
    for (const auto& [pid, candidate] : candidates_)
      if (candidate.looksLeft > 0) due.push_back(pid);
    bool more = false;
    // Reporting runs handlers, which may change the map: each is looked up afresh.
    for (const pid_t pid : due) {
      const auto candidate = candidates_.find(pid);
      if (candidate == candidates_.end()) continue;
      const std::string path = candidate->second.path;
      more |= --candidate->second.looksLeft > 0;
      if (table_.executableOf(pid) != path || lookAt(pid, path, true)) candidates_.erase(pid);
    }
    if (more) lookAgainLater();
  });
}

void Workspace::frontChanged() {
  const Dictionary record = activeApplication();
  if (!record.empty()) postNotification(kDidActivateApplication, record);
}

Dictionary Workspace::activeApplication() {
  const std::optional<pid_t> pid = frontWindow_.activeProcess();
  if (!pid) return {};
  if (const auto found = applications_.find(*pid); found != applications_.end())
    return found->second.record;
  // A program of the user that the desktop moved into its unit after its exec: its first
  // activation is the last look it gets.
  if (const auto waiting = candidates_.find(*pid); waiting != candidates_.end()) {
    const std::string path = waiting->second.path;
    candidates_.erase(waiting);
    if (lookAt(*pid, path, true)) return applications_.at(*pid).record;
  }
  const std::string path = table_.executableOf(*pid);
  if (path.empty()) return {};
  return recordFor(*pid, path, {});
}

std::vector<Dictionary> Workspace::launchedApplications() const {
  std::map<std::uint64_t, const Dictionary*> byAge;
  for (const auto& [pid, application] : applications_)
    byAge.emplace(application.order, &application.record);
  std::vector<Dictionary> records;
  for (const auto& [order, record] : byAge) records.push_back(*record);
  return records;
}

Dictionary Workspace::recordFor(pid_t pid, const std::string& path,
                                const std::string& applicationId) {
  std::optional<std::string> name;
  if (!applicationId.empty()) name = desktop_.displayName(applicationId);
  return Dictionary{{kApplicationPathKey, path},
                    {kApplicationNameKey, name.value_or(lastPathComponent(path))},
                    {kApplicationProcessIdentifierKey, static_cast<long long>(pid)}};
}

}  // namespace vesk
