#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vesk {

// Whether this process was started set-user-id or set-group-id (the kernel's secure-execution
// mode): its environment then belongs to whoever started it, not to the client. Stays true
// after the process has made its ids equal.
bool isSetUserIdExecution();

// This process's environment as its children may inherit it ("NAME=value" entries). In a
// set-user-id run the environment is the starter's and the children run as root, so they get
// a fixed search path and only the terminal and locale settings: no BASH_ENV, IFS, LD_ or
// interpreter paths, and no locale given as a file path. Otherwise all of it.
std::vector<std::string> inheritableEnvironment();

// The real user and group that started this process. The agent makes itself root in every
// id once it runs (set-user-id root), after which its real ids no longer say who it serves:
// these do, taken before main() runs.
uid_t startingUserId();
gid_t startingGroupId();

// While it lives, the calling thread acts as another user: its effective user and group ids are
// the given ones. Other threads keep theirs, and nothing changes where the ids are the effective
// ones already. A process that may not take those ids (it is not root) goes on as itself.
class ActingAsUser {
 public:
  ActingAsUser(uid_t uid, gid_t gid);
  ~ActingAsUser();
  ActingAsUser(const ActingAsUser&) = delete;
  ActingAsUser& operator=(const ActingAsUser&) = delete;
  // False when the ids could not be switched; the thread then acts as before.
  bool acting() const { return acting_; }

 private:
  uid_t effectiveUid_;
  gid_t effectiveGid_;
  bool uidSwitched_ = false;
  bool gidSwitched_ = false;
  bool acting_ = true;
};

// Acting as the user and group that started a set-user-id or set-group-id process: its
// starting real ids. Nothing changes in a process whose ids are already equal. For what must
// be done in the user's name rather than root's, such as connecting to the system bus, which
// takes a peer's credentials when the connection is made.
class ActingAsRealUser : public ActingAsUser {
 public:
  ActingAsRealUser() : ActingAsUser(startingUserId(), startingGroupId()) {}
};

}  // namespace vesk
