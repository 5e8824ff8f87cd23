#include "platform/ProcessSecurity.h"

#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vesk {

namespace {

// Static initialisation runs before main(), so before anything could change the ids.
const uid_t startingUid = ::getuid();
const gid_t startingGid = ::getgid();

}  // namespace

uid_t startingUserId() { return startingUid; }
gid_t startingGroupId() { return startingGid; }

bool isSetUserIdExecution() { return ::getauxval(AT_SECURE) != 0; }

// The C library's setresuid changes every thread of the process; the system call itself
// changes only the calling thread, which is what is wanted here. The saved ids stay as they
// are, so the effective ones can be taken back.
ActingAsUser::ActingAsUser(uid_t uid, gid_t gid)
    : effectiveUid_(::geteuid()), effectiveGid_(::getegid()) {
  if (gid != effectiveGid_) {
    gidSwitched_ = ::syscall(SYS_setresgid, -1, gid, -1) == 0;
    acting_ = gidSwitched_;
  }
  if (acting_ && uid != effectiveUid_) {
    uidSwitched_ = ::syscall(SYS_setresuid, -1, uid, -1) == 0;
    acting_ = uidSwitched_;
  }
}

ActingAsUser::~ActingAsUser() {
  // The user first: taking the group back may need the effective user's privilege.
  if (uidSwitched_) (void)::syscall(SYS_setresuid, -1, effectiveUid_, -1);
  if (gidSwitched_) (void)::syscall(SYS_setresgid, -1, effectiveGid_, -1);
}

}  // namespace vesk
