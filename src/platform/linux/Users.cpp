#include "platform/Users.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "foundation/Paths.h"
#include "platform/ProcessSecurity.h"

namespace vesk {

namespace {

// The entry that `lookUp` (getpwuid_r or getpwnam_r with its key bound) finds, as an account.
template <typename LookUp>
std::optional<UserAccount> account(LookUp lookUp) {
  const long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 4096);
  // A directory service may hold entries larger than the C library suggests.
  while (true) {
    struct passwd entry {};
    struct passwd* found = nullptr;
    const int error = lookUp(&entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0 || found == nullptr) return std::nullopt;
    return UserAccount{found->pw_name != nullptr ? found->pw_name : "", found->pw_uid,
                       found->pw_gid, found->pw_dir != nullptr ? found->pw_dir : ""};
  }
}

}  // namespace

std::string userNameForUid(uid_t uid) {
  const std::optional<UserAccount> found = userAccountForUid(uid);
  return found ? found->name : "";
}

std::string homeOfUser(uid_t uid) {
  const std::optional<UserAccount> found = userAccountForUid(uid);
  return found ? found->home : "";
}

std::optional<UserAccount> userAccountForUid(uid_t uid) {
  return account([uid](passwd* entry, char* buffer, std::size_t size, passwd** found) {
    return ::getpwuid_r(uid, entry, buffer, size, found);
  });
}

std::optional<UserAccount> userAccountNamed(const std::string& name) {
  if (name.empty()) return std::nullopt;
  return account([&name](passwd* entry, char* buffer, std::size_t size, passwd** found) {
    return ::getpwnam_r(name.c_str(), entry, buffer, size, found);
  });
}

std::string currentUserShortName() { return userNameForUid(startingUserId()); }

std::optional<std::string> consoleOwnerName() {
  struct stat status {};
  if (::stat(fsPath("/dev/console").c_str(), &status) != 0) return std::nullopt;
  std::string name = userNameForUid(status.st_uid);
  if (name.empty()) return std::nullopt;
  return name;
}

}  // namespace vesk
