#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// The system's user database, and who is at the screen.
namespace vesk {

// The owner of fsPath("/dev/console"): who is at the screen where there is no login manager.
std::optional<std::string> consoleOwnerName();
// The short name of the real user running this process; empty when the system has no name for
// it.
std::string currentUserShortName();
// The name of user `uid` in the system's user database; empty when there is none.
std::string userNameForUid(uid_t uid);
// The home folder of user `uid`; empty when the system has none for it.
std::string homeOfUser(uid_t uid);

}  // namespace vesk
