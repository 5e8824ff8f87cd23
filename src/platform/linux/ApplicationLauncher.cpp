#include "platform/ApplicationLauncher.h"

#include <glib.h>
#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "foundation/FileManager.h"
#include "foundation/Paths.h"
#include "platform/Users.h"

namespace vesk {
namespace {

// What the child needs to become the user, worked out before the fork: after it, in a process
// with threads, only calls that take no locks may run.
struct Identity {
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;
  bool change;
};

// In the child, between fork and exec. Anything that fails ends the child before the exec, so
// the program never runs with an id that is not the user's.
void becomeUser(gpointer data) {
  const auto* identity = static_cast<const Identity*>(data);
  (void)::setsid();
  if (!identity->change) return;
  if (::setgroups(identity->groups.size(), identity->groups.data()) != 0 ||
      ::setresgid(identity->gid, identity->gid, identity->gid) != 0 ||
      ::setresuid(identity->uid, identity->uid, identity->uid) != 0)
    ::_exit(127);
}

std::string programOf(const std::string& path) {
  if (!isDirectory(path)) return path;
  std::string name = lastPathComponent(path);
  if (name.size() > 4 && name.compare(name.size() - 4, 4, ".app") == 0)
    name.resize(name.size() - 4);
  return stringByAppendingPathComponent(path, "Contents/MacOS/" + name);
}

}  // namespace

bool launchApplicationAsUser(const std::string& path, uid_t uid, gid_t gid) {
  if (path.empty()) return false;
  Identity identity{uid, gid, {}, ::getuid() != uid || ::geteuid() != uid || ::getgid() != gid};
  std::string home = "/";
  if (const std::optional<UserAccount> account = userAccountForUid(uid)) {
    if (isDirectory(account->home)) home = account->home;
    int count = 64;
    identity.groups.resize(static_cast<std::size_t>(count));
    if (::getgrouplist(account->name.c_str(), gid, identity.groups.data(), &count) < 0) {
      identity.groups.resize(static_cast<std::size_t>(count));
      (void)::getgrouplist(account->name.c_str(), gid, identity.groups.data(), &count);
    }
    identity.groups.resize(static_cast<std::size_t>(count));
  } else {
    identity.groups = {gid};
  }

  const std::string program = programOf(path);
  char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
  GError* error = nullptr;
  // Without G_SPAWN_DO_NOT_REAP_CHILD GLib starts the program from an intermediate child that
  // ends at once: the application is nobody's child here, and no zombie is left.
  const gboolean started = g_spawn_async(
      home.c_str(), argv, nullptr,
      static_cast<GSpawnFlags>(G_SPAWN_STDIN_FROM_DEV_NULL | G_SPAWN_STDOUT_TO_DEV_NULL |
                               G_SPAWN_STDERR_TO_DEV_NULL | G_SPAWN_CLOEXEC_PIPES),
      &becomeUser, &identity, nullptr, &error);
  if (error != nullptr) g_error_free(error);
  return started != FALSE;
}

}  // namespace vesk
