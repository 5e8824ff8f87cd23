#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vesk {

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
bool removeItemAtPath(const std::string& path);
bool moveItemAtPath(const std::string& from, const std::string& to);
// The size of the file at `path`; nullopt when it cannot be read.
std::optional<std::uint64_t> fileSizeAtPath(const std::string& path);
// Gives an open file `attributes` (see FileAttributes for when the owner applies).
void applyAttributes(int fd, const FileAttributes& attributes);

}  // namespace vesk
