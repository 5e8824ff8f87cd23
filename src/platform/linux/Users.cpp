#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "foundation/Paths.h"
#include "platform/LoginSession.h"

namespace vesk {

std::string userNameForUid(uid_t uid) {
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
    if (error != 0 || found == nullptr || found->pw_name == nullptr) return "";
    return found->pw_name;
  }
}

std::string currentUserShortName() { return userNameForUid(::getuid()); }

std::optional<std::string> consoleOwnerName() {
  struct stat status {};
  if (::stat(fsPath("/dev/console").c_str(), &status) != 0) return std::nullopt;
  std::string name = userNameForUid(status.st_uid);
  if (name.empty()) return std::nullopt;
  return name;
}

}  // namespace vesk
