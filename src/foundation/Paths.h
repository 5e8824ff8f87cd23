#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vesk {

// An environment variable the process may trust: none at all when the process runs
// set-user-id or set-group-id (secure_getenv), since whoever started it controls the
// environment.
std::optional<std::string> secureEnvironmentValue(const char* name);

// Where the absolute path the client names lives on this machine: `path` itself, or, when
// VESK_ROOT is set (tests, the demo and unprivileged runs), that folder followed by `path`.
// A set-user-id run ignores VESK_ROOT, so no one can redirect what it reads, writes or runs.
std::string fsPath(std::string_view path);

}  // namespace vesk
