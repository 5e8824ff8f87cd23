#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vesk {

// An environment variable the process may trust: none at all when the process runs
// set-user-id or set-group-id (secure_getenv), since whoever started it controls the
// environment.
std::optional<std::string> secureEnvironmentValue(const char* name);

// In a set-user-id run, removes from the environment the overrides that such a run ignores
// (VESK_ROOT, VESK_OS_VERSION), so that the programs it starts, which no longer run
// set-user-id, cannot be redirected by them either. Called once at start, before any thread.
void forgetIgnoredOverrides();

// Where the absolute path the client names lives on this machine: `path` itself, or, when
// VESK_ROOT is set (tests, the demo and unprivileged runs), that folder followed by `path`.
// A set-user-id run ignores VESK_ROOT, so no one can redirect what it reads, writes or runs.
std::string fsPath(std::string_view path);
// Where the client's tool at `path` (its macOS path) is on this machine: the ones a Linux
// system lacks ("/bin/launchctl", "/usr/bin/defaults") are installed beside the agent in
// /usr/local/vesk/bin (launchctl, vesk-defaults), so
// that installing the client never touches the system's own folders. Through fsPath.
std::string toolPath(std::string_view path);

// `component` joined to `base` as a path: one "/" between them, runs of "/" made one and a
// trailing "/" dropped. An empty base gives the component alone, so "" and "/a/b" give "/a/b".
std::string stringByAppendingPathComponent(std::string_view base, std::string_view component);
// What follows the last "/" of `path`; the whole of it when there is none.
std::string lastPathComponent(std::string_view path);

}  // namespace vesk
