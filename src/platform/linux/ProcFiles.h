#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// Readers of a process's /proc folder, shared by the Linux sources.
namespace vesk {

// Reads a small /proc file in one go; nullopt when it cannot be read (the process ended).
std::optional<std::string> readSmallFile(int directory, const char* name);
// The effective user of the process whose /proc folder is open. The folder belongs to that
// user unless the process may not be inspected (it changed its ids), when it belongs to root;
// so only a root-owned folder needs the status file, which costs ten times as much to read.
std::optional<uid_t> effectiveUid(int folder);
// The executable's path through a handle on /proc or on the process's own folder; empty
// when there is none to read.
std::string executablePath(int directory, const char* name);

}  // namespace vesk
