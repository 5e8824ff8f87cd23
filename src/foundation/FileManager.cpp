#include "foundation/FileManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace vesk {
namespace {

void applyOwner(const std::string& path, const FileAttributes& attributes) {
  if (::geteuid() == 0) (void)::lchown(path.c_str(), attributes.owner, attributes.group);
}

// Removes `name` in the folder `parent`, descending into folders through descriptors opened
// without following links, so that a link swapped in meanwhile cannot lead the removal
// elsewhere.
bool removeTree(int parent, const char* name) {
  if (::unlinkat(parent, name, 0) == 0) return true;
  if (errno != EISDIR && errno != EPERM) return false;
  const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    ::close(fd);
    return false;
  }
  bool ok = true;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view child = entry->d_name;
    if (child == "." || child == "..") continue;
    ok = removeTree(::dirfd(dir), entry->d_name) && ok;
  }
  ::closedir(dir);
  return ::unlinkat(parent, name, AT_REMOVEDIR) == 0 && ok;
}

const Value* numberEntry(const Dictionary& attributes, const char* key) {
  const Value* value = attributes.find(key);
  return value != nullptr && value->isNumber() ? value : nullptr;
}

}  // namespace

bool isDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

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

bool removeItemAtPath(const std::string& path) {
  std::string item = path;
  while (item.size() > 1 && item.back() == '/') item.pop_back();
  return !item.empty() && removeTree(AT_FDCWD, item.c_str());
}

bool moveItemAtPath(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0;
}

std::optional<std::string> contentsAtPath(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string bytes;
  char buffer[65536];
  ssize_t n = 0;
  while ((n = ::read(fd, buffer, sizeof buffer)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  if (n < 0) return std::nullopt;  // a folder, or a read that failed half-way
  return bytes;
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

bool writeFileAtomically(const std::string& path, std::string_view bytes,
                         const FileAttributes& attributes, bool* madeTemporary) {
  std::string temporary = path + ".XXXXXX";
  const int fd = ::mkstemp(temporary.data());
  if (madeTemporary != nullptr) *madeTemporary = fd >= 0;
  if (fd < 0) return false;
  if (::geteuid() == 0) (void)::fchown(fd, attributes.owner, attributes.group);
  bool ok = ::fchmod(fd, attributes.permissions) == 0 && writeAll(fd, bytes) && ::fsync(fd) == 0;
  int savedErrno = ok ? 0 : errno;
  ::close(fd);
  if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
    ok = false;
    savedErrno = errno;
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    errno = savedErrno != 0 ? savedErrno : EIO;
  }
  return ok;
}

std::optional<FileAttributes> attributesOfItemAtPath(const std::string& path) {
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0) return std::nullopt;
  return FileAttributes{info.st_uid, info.st_gid, static_cast<mode_t>(info.st_mode & 07777)};
}

bool setAttributesOfItemAtPath(const Dictionary& attributes, const std::string& path) {
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0 || S_ISLNK(info.st_mode)) return false;
  bool ok = true;
  const Value* owner = numberEntry(attributes, kFileOwnerAccountID);
  const Value* group = numberEntry(attributes, kFileGroupOwnerAccountID);
  if ((owner != nullptr || group != nullptr) && ::geteuid() == 0) {
    const auto uid = owner ? static_cast<uid_t>(owner->unsignedIntegerValue()) : uid_t(-1);
    const auto gid = group ? static_cast<gid_t>(group->unsignedIntegerValue()) : gid_t(-1);
    ok = ::lchown(path.c_str(), uid, gid) == 0;
  }
  // After the owner: changing the owner clears the set-id bits a mode may ask for.
  if (const Value* mode = numberEntry(attributes, kFilePosixPermissions))
    ok =
        ::chmod(path.c_str(), static_cast<mode_t>(mode->unsignedIntegerValue() & 07777)) == 0 && ok;
  return ok;
}

bool addPosixPermission(mode_t mode, const std::string& path) {
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0 || S_ISLNK(info.st_mode)) return false;
  return ::chmod(path.c_str(), (info.st_mode & 07777) | (mode & 07777)) == 0;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace vesk
