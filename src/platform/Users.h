#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// The system's user database, and who is at the screen.
namespace vesk {

// An entry of the system's user database.
struct UserAccount {
  std::string name;
  uid_t uid;
  gid_t gid;
  std::string home;
};

// The owner of fsPath("/dev/console"): who is at the screen where there is no login manager.
std::optional<std::string> consoleOwnerName();
// The short name of the real user running this process; empty when the system has no name for
// it.
std::string currentUserShortName();
// The name of user `uid` in the system's user database; empty when there is none.
std::string userNameForUid(uid_t uid);
// The home folder of user `uid`; empty when the system has none for it.
std::string homeOfUser(uid_t uid);
// The account of user `uid`; nullopt when there is none.
std::optional<UserAccount> userAccountForUid(uid_t uid);
// The account named `name`; nullopt when there is none.
std::optional<UserAccount> userAccountNamed(const std::string& name);

}  // namespace vesk
