#pragma once

#include <string>

#include "foundation/Value.h"

// Where the client keeps its run-state markers and temporary files, and with which owner,
// group and mode those folders must exist. Every operation creates or repairs what it names
// on each call and answers the path whether or not that worked: housekeeping never fails
// out loud, and a caller that needs the folder checks for itself. Paths come back resolved
// (under VESK_ROOT when it is set). Nothing here keeps state or locks, so any thread may
// call; two processes repairing one folder at once may both recreate it.

namespace vesk {

// Attribute dictionaries for setAttributesOfItemAtPath: owner, group and mode as unsigned
// numbers; or the mode alone.
Dictionary permissionsDictionaryWithOwner(unsigned long owner, unsigned long andGroupOwner,
                                          unsigned long andPermissions);
Dictionary permissionsDictionaryWithPermissions(unsigned long permissions);

// Run folders: root, admin, 0700. The check-for-tasks and enrolment markers stay in the
// legacy folder and the others live under application support; other programs of the client
// look for them there, so the split is kept.
std::string legacyVeskRunDir();
std::string veskRunDir();
std::string legacyVeskRunFile(const std::string& name);
std::string veskRunFile(const std::string& name);
std::string checkForTasksFile();
std::string enrollLockFile();
std::string reEnrollLockFile();
std::string updateAlreadyInProgressLockFile();
// Makes sure the run folder at `path` is right (creating or repairing it) and answers path.
std::string manageRunFolder(const std::string& path);
// A folder with other permissions, another owner or group, or anything that is not a
// folder at all is removed with its contents and created afresh.
void checkPermissionsAtPath(const std::string& path);
void createDirectoryWithPermissionsAtPath(const std::string& path);

// Temporary folders: as root the client's own (root, admin, 0700); otherwise "VESK" in the
// user's temporary folder.
bool isRunningAsRoot();
std::string veskTmpDir();
// The name joined with a literal "/": a name starting with "/" gives a doubled slash.
std::string veskTmpFile(const std::string& name);
std::string rootTempDir();
std::string nonRootTempDir();
// The user's temporary folder: TMPDIR, else the session's runtime folder (private to the
// user), else "/tmp". A set-user-id run trusts neither variable.
std::string nsTempDir();
void resetApplicationSupportVESKPermissions();
void resetTmpDirPermissions();

}  // namespace vesk
