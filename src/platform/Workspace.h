#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "foundation/RunLoop.h"
#include "foundation/Value.h"
#include "platform/DesktopApplications.h"
#include "platform/FrontWindow.h"
#include "platform/ProcessEvents.h"
#include "platform/ProcessTable.h"
#include "platform/SessionEvents.h"

namespace vesk {

// The user's session as the agent sees it: the applications of the session's user, launched,
// running, in front and ended, and the workspace's notification center, on which the other
// sources of the session (the login manager) post too. Lives on one thread, whose run loop
// delivers every notification; made, started and asked on that thread only.
//
// An application is a process of the session's user that the desktop launched as one: its
// control group is a desktop launch unit. A desktop may move a new process into that unit a
// few milliseconds after its exec, so a process of the user that is not one yet is looked at
// again a little later, and once more when it first comes to the front.
class Workspace {
 public:
  using Handler = std::function<void(const std::string& name, const Dictionary& userInfo)>;
  using ExecHook = std::function<void(const ProcessEvent&)>;
  using ObserverId = std::uint64_t;

  // The collaborators outlive the workspace. `timers` schedules the second looks.
  Workspace(uid_t sessionUser, ProcessTable& table, ProcessEventSource& processes,
            DesktopApplications& desktop, FrontWindow& frontWindow, TimerSource& timers);
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;

  // Every exec on the machine, of any user, application or not, before anything else hears of
  // it: the restricted-software check. Set before start().
  void setExecHook(ExecHook hook) { execHook_ = std::move(hook); }
  // Takes the user's running applications as they are, then reports from the process source
  // and the front window. Once.
  void start();

  // The workspace's notification center. Observers of one name are called in the order they
  // were added; one may add or remove observers, itself included, while called.
  ObserverId addObserver(const std::string& name, Handler handler);
  void removeObserver(ObserverId observer);
  void removeAllObservers();
  // Calls the observers of `name` now.
  void postNotification(const std::string& name, const Dictionary& userInfo);

  // The front application's record: "NSApplicationPath", "NSApplicationName",
  // "NSApplicationProcessIdentifier"; empty when there is none or it cannot be told.
  Dictionary activeApplication();
  // The records of the user's running applications, oldest first.
  std::vector<Dictionary> launchedApplications() const;

  // What the workspace has handled, for the benchmarks and the session tool.
  std::uint64_t execsSeen() const { return execsSeen_; }

 private:
  struct Application {
    std::uint64_t order;
    Dictionary record;
  };
  struct Candidate {
    std::string path;
    int looksLeft;
  };

  void processEvent(const ProcessEvent& event);
  // Whether `pid`, running `path`, is now an application of the user; adds and reports it.
  bool lookAt(pid_t pid, const std::string& path, bool report);
  void lookAgainLater();
  void frontChanged();
  Dictionary recordFor(pid_t pid, const std::string& path, const std::string& applicationId);

  uid_t sessionUser_;
  ProcessTable& table_;
  ProcessEventSource& processes_;
  DesktopApplications& desktop_;
  FrontWindow& frontWindow_;
  TimerSource& timers_;
  ExecHook execHook_;
  bool started_ = false;

  std::multimap<std::string, std::pair<ObserverId, Handler>> observers_;
  ObserverId nextObserver_ = 1;

  std::map<pid_t, Application> applications_;
  std::uint64_t nextOrder_ = 0;
  // Processes of the user that may yet become applications, until they end or first come to
  // the front, and how many timed looks each has left; bounded, since a busy user starts many
  // programs that never will.
  std::map<pid_t, Candidate> candidates_;
  std::shared_ptr<Timer> lookAgain_;
  std::uint64_t execsSeen_ = 0;
};

}  // namespace vesk
