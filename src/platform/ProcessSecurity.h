#pragma once

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

}  // namespace vesk
