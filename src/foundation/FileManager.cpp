#include "foundation/FileManager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace vesk {
namespace {

void applyOwner(const std::string& path, const FileAttributes& attributes) {
  if (::geteuid() == 0) (void)::lchown(path.c_str(), attributes.owner, attributes.group);
}

}  // namespace

bool fileExistsAtPath(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

bool createDirectoryAtPath(const std::string& path, const FileAttributes& attributes) {
  struct stat info;
  if (::stat(path.c_str(), &info) == 0) return S_ISDIR(info.st_mode);
  const std::size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0 &&
      !createDirectoryAtPath(path.substr(0, slash), attributes))
    return false;
  if (::mkdir(path.c_str(), attributes.permissions) != 0) return errno == EEXIST;
  // mkdir honours the umask; the folder gets exactly the permissions asked for.
  (void)::chmod(path.c_str(), attributes.permissions);
  applyOwner(path, attributes);
  return true;
}

bool removeItemAtPath(const std::string& path) { return std::remove(path.c_str()) == 0; }

bool moveItemAtPath(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0;
}

std::optional<std::uint64_t> fileSizeAtPath(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(info.st_size);
}

void applyAttributes(int fd, const FileAttributes& attributes) {
  (void)::fchmod(fd, attributes.permissions);
  if (::geteuid() == 0) (void)::fchown(fd, attributes.owner, attributes.group);
}

}  // namespace vesk
