#include "config/ClientFolders.h"

#include <fmt/format.h>
#include <unistd.h>

#include "foundation/FileManager.h"
#include "foundation/Paths.h"

namespace vesk {
namespace {

constexpr mode_t kRunFolderMode = 0700;
constexpr uid_t kRootOwner = 0;
constexpr gid_t kAdminGroup = 80;
constexpr gid_t kWheelGroup = 0;

const FileAttributes kRunFolderAttributes{kRootOwner, kAdminGroup, kRunFolderMode};

}  // namespace

Dictionary permissionsDictionaryWithOwner(unsigned long owner, unsigned long andGroupOwner,
                                          unsigned long andPermissions) {
  return Dictionary{{kFileOwnerAccountID, Value(owner)},
                    {kFileGroupOwnerAccountID, Value(andGroupOwner)},
                    {kFilePosixPermissions, Value(andPermissions)}};
}

Dictionary permissionsDictionaryWithPermissions(unsigned long permissions) {
  return Dictionary{{kFilePosixPermissions, Value(permissions)}};
}

std::string legacyVeskRunDir() { return manageRunFolder(fsPath("/private/var/run/vesk")); }

std::string veskRunDir() {
  return manageRunFolder(fsPath("/Library/Application Support/VESK/run"));
}

std::string legacyVeskRunFile(const std::string& name) {
  return stringByAppendingPathComponent(legacyVeskRunDir(), name);
}

std::string veskRunFile(const std::string& name) {
  return stringByAppendingPathComponent(veskRunDir(), name);
}

std::string checkForTasksFile() { return legacyVeskRunFile("checkForTasks"); }
std::string enrollLockFile() { return legacyVeskRunFile("veskEnroll"); }
std::string reEnrollLockFile() { return veskRunFile("veskReEnroll"); }
std::string updateAlreadyInProgressLockFile() { return veskRunFile("veskUpdateAlreadyInProgress"); }

std::string manageRunFolder(const std::string& path) {
  if (fileExistsAtPath(path)) {
    checkPermissionsAtPath(path);
  } else {
    createDirectoryWithPermissionsAtPath(path);
  }
  return path;
}

void checkPermissionsAtPath(const std::string& path) {
  // The item itself, not what a link there points to: a link is never a proper run folder.
  const std::optional<FileAttributes> found = attributesOfItemAtPath(path);
  const bool proper = found && isDirectory(path) && found->permissions == kRunFolderMode &&
                      found->owner == kRootOwner && found->group == kAdminGroup;
  if (proper) return;
  removeItemAtPath(path);
  createDirectoryWithPermissionsAtPath(path);
}

void createDirectoryWithPermissionsAtPath(const std::string& path) {
  createDirectoryAtPath(path, kRunFolderAttributes);
}

bool isRunningAsRoot() { return ::geteuid() == 0; }

std::string veskTmpDir() { return isRunningAsRoot() ? rootTempDir() : nonRootTempDir(); }

std::string veskTmpFile(const std::string& name) {
  return fmt::format("{}/{}", veskTmpDir(), name);
}

std::string rootTempDir() {
  const std::string path = fsPath("/Library/Application Support/VESK/tmp");
  if (!fileExistsAtPath(path)) {
    createDirectoryAtPath(path, kRunFolderAttributes);
  } else {
    resetTmpDirPermissions();
  }
  resetApplicationSupportVESKPermissions();
  return path;
}

std::string nonRootTempDir() {
  // The platform's temporary folder is never missing here (nsTempDir falls back to /tmp),
  // so the client's own fallback, /private/tmp, is not needed on this side.
  const std::string path = stringByAppendingPathComponent(nsTempDir(), "VESK");
  if (isDirectory(path)) return path;
  if (fileExistsAtPath(path)) removeItemAtPath(path);
  // Private to the user: the client's expect scripts, which hold answers, are written here.
  createDirectoryAtPath(path, FileAttributes{::geteuid(), ::getegid(), 0700});
  return path;
}

std::string nsTempDir() {
  for (const char* name : {"TMPDIR", "XDG_RUNTIME_DIR"}) {
    const std::optional<std::string> value = secureEnvironmentValue(name);
    if (value && !value->empty() && value->front() == '/') return *value;
  }
  return "/tmp";
}

void resetApplicationSupportVESKPermissions() {
  (void)setAttributesOfItemAtPath(permissionsDictionaryWithOwner(kRootOwner, kWheelGroup, 0755),
                                  fsPath("/Library/Application Support/VESK"));
}

void resetTmpDirPermissions() {
  (void)setAttributesOfItemAtPath(
      permissionsDictionaryWithOwner(kRootOwner, kAdminGroup, kRunFolderMode),
      fsPath("/Library/Application Support/VESK/tmp"));
}

}  // namespace vesk
