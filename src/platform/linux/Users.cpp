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

// A field of user `uid`'s entry in the user database; empty when there is none.
std::string userField(uid_t uid, char* passwd::*field) {
  const long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 4096);
  // A directory service may hold entries larger than the C library suggests.
  while (true) {
    struct passwd entry {};
    struct passwd* found = nullptr;
    const int error = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0 || found == nullptr || found->*field == nullptr) return "";
    return found->*field;
  }
}

}  // namespace

std::string userNameForUid(uid_t uid) { return userField(uid, &passwd::pw_name); }

std::string homeOfUser(uid_t uid) { return userField(uid, &passwd::pw_dir); }

std::string currentUserShortName() { return userNameForUid(startingUserId()); }

std::optional<std::string> consoleOwnerName() {
  struct stat status {};
  if (::stat(fsPath("/dev/console").c_str(), &status) != 0) return std::nullopt;
  std::string name = userNameForUid(status.st_uid);
  if (name.empty()) return std::nullopt;
  return name;
}

}  // namespace vesk
