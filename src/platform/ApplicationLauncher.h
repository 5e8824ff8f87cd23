#pragma once

#include <sys/types.h>

#include <string>

namespace vesk {

// Starts the application at `path` for user `uid` (group `gid`) and returns without waiting
// for it: a program of its own session, in the user's home, with this process's environment
// (which is the user's own: the agent was started in the user's session) and its standard
// streams on /dev/null. A folder is an application bundle, whose program is
// "Contents/MacOS/<name of the bundle without .app>". The program runs with every id the
// user's, never root's: a process that cannot take them on does not start it. False when it
// could not be started.
bool launchApplicationAsUser(const std::string& path, uid_t uid, gid_t gid);

}  // namespace vesk
