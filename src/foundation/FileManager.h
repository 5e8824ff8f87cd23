#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Error.h"
#include "foundation/Value.h"

namespace vesk {

// The keys of an attribute dictionary (setAttributesOfItemAtPath); each value a number.
inline constexpr const char* kFileOwnerAccountID = "NSFileOwnerAccountID";
inline constexpr const char* kFileGroupOwnerAccountID = "NSFileGroupOwnerAccountID";
inline constexpr const char* kFilePosixPermissions = "NSFilePosixPermissions";

// Owner, group and permissions for what the client creates. The owner and group are applied
// only when this process runs as root: no one else may give a file away, and a run without
// root (tests, the demo) still gets its folders and files with the right permissions.
struct FileAttributes {
  uid_t owner = 0;
  gid_t group = 0;
  mode_t permissions = 0;
};

// File housekeeping. None of these reports why it failed: the client's housekeeping goes on
// regardless, and a caller that cares checks the result.
bool fileExistsAtPath(const std::string& path);
// Creates `path` and whatever parents are missing, each new folder with `attributes`.
bool createDirectoryAtPath(const std::string& path, const FileAttributes& attributes);
// Whether something exists at `path` and it is a folder (a link to a folder counts).
bool isDirectory(const std::string& path);
// Removes the file or folder at `path`, a folder with everything in it. Links are removed,
// never followed, so nothing outside the folder is touched.
bool removeItemAtPath(const std::string& path);
bool moveItemAtPath(const std::string& from, const std::string& to);
// The bytes of the file at `path`; nullopt when it cannot be read.
std::optional<std::string> contentsAtPath(const std::string& path);
// The size of the file at `path`; nullopt when it cannot be read.
std::optional<std::uint64_t> fileSizeAtPath(const std::string& path);
// Gives an open file `attributes` (see FileAttributes for when the owner applies).
void applyAttributes(int fd, const FileAttributes& attributes);
// The owner, group and permissions of the item at `path` itself (a link is not followed).
std::optional<FileAttributes> attributesOfItemAtPath(const std::string& path);
// Applies the entries of an attribute dictionary to the item at `path`; entries it lacks
// are left as they are. A link is never followed: its target keeps its attributes. The owner
// and group apply only as root (see FileAttributes). False when a change failed.
bool setAttributesOfItemAtPath(const Dictionary& attributes, const std::string& path);
// Writes all of `bytes` to `fd`, going on after interruptions; false (errno set by the failing
// write) when a write fails or writes nothing.
bool writeAll(int fd, std::string_view bytes);

// Replaces the file at `path` with `bytes` so that no reader ever sees half of it: they go to
// a temporary file made anew beside it (never through a link), given `attributes` (the owner
// only as root), synced, and renamed over whatever was at `path`. False, with errno set, when
// any step failed; `madeTemporary` then tells whether the temporary file could be made.
bool writeFileAtomically(const std::string& path, std::string_view bytes,
                         const FileAttributes& attributes, bool* madeTemporary = nullptr);

// Adds the permission bits `mode` to the file at `path`.
bool addPosixPermission(mode_t mode, const std::string& path);

}  // namespace vesk
