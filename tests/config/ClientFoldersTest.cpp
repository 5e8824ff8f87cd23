#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "config/ClientFolders.h"
#include "foundation/FileManager.h"
#include "foundation/Paths.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

struct Attributes {
  uid_t owner;
  gid_t group;
  mode_t mode;
  bool folder;
};

Attributes attributesOf(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return {info.st_uid, info.st_gid, static_cast<mode_t>(info.st_mode & 07777),
          S_ISDIR(info.st_mode)};
}

class ClientFolders : public testing::Test {
 protected:
  void SetUp() override { ::setenv("VESK_ROOT", root_.path().c_str(), 1); }
  std::string under(const std::string& path) const { return root_.path().string() + path; }

  test::TemporaryFolder root_;
};

TEST_F(ClientFolders, NameTheMarkerFilesInTheirTwoRunFolders) {
  EXPECT_EQ(checkForTasksFile(), under("/private/var/run/vesk/checkForTasks"));
  EXPECT_EQ(enrollLockFile(), under("/private/var/run/vesk/veskEnroll"));
  EXPECT_EQ(reEnrollLockFile(), under("/Library/Application Support/VESK/run/veskReEnroll"));
  EXPECT_EQ(updateAlreadyInProgressLockFile(),
            under("/Library/Application Support/VESK/run/veskUpdateAlreadyInProgress"));
  EXPECT_EQ(veskRunFile("/x"), under("/Library/Application Support/VESK/run/x"));
  EXPECT_TRUE(isDirectory(under("/private/var/run/vesk")));

  EXPECT_EQ(permissionsDictionaryWithOwner(0, 80, 0700),
            (Dictionary{{"NSFileOwnerAccountID", Value(0UL)},
                        {"NSFileGroupOwnerAccountID", Value(80UL)},
                        {"NSFilePosixPermissions", Value(0700UL)}}));
  EXPECT_EQ(permissionsDictionaryWithPermissions(0644),
            (Dictionary{{"NSFilePosixPermissions", Value(0644UL)}}));
}

TEST_F(ClientFolders, RepairARunFolderThatIsWrongInAnyWayByStartingAfresh) {
  if (::geteuid() != 0) GTEST_SKIP() << "owner and group can only be checked as root";
  const std::string run = under("/Library/Application Support/VESK/run");
  const auto expectProperAndEmpty = [&](const char* what) {
    const Attributes a = attributesOf(run);
    EXPECT_TRUE(a.folder) << what;
    EXPECT_EQ(a.owner, 0u) << what;
    EXPECT_EQ(a.group, 80u) << what;
    EXPECT_EQ(a.mode, 0700u) << what;
    EXPECT_TRUE(fs::is_empty(run)) << what;
  };

  EXPECT_EQ(veskRunDir(), run);
  expectProperAndEmpty("created");
  root_.write("Library/Application Support/VESK/run/keep", "x");
  EXPECT_EQ(veskRunDir(), run);
  EXPECT_TRUE(fs::exists(run + "/keep"));  // a proper folder keeps its contents

  ::chmod(run.c_str(), 0755);
  veskRunDir();
  expectProperAndEmpty("mode 0755");
  root_.write("Library/Application Support/VESK/run/old", "x");
  ::chown(run.c_str(), 0, 0);
  veskRunDir();
  expectProperAndEmpty("group 0");

  fs::remove_all(run);
  root_.write("Library/Application Support/VESK/run", "a plain file");
  veskRunDir();
  expectProperAndEmpty("a file in its place");

  // A link is removed, never followed: what it points to keeps its contents.
  fs::remove_all(run);
  const fs::path elsewhere = root_.write("elsewhere/precious", "x").parent_path();
  ::chmod(elsewhere.c_str(), 0700);
  ::chown(elsewhere.c_str(), 0, 80);
  fs::create_directory_symlink(elsewhere, run);
  veskRunDir();
  expectProperAndEmpty("a link in its place");
  EXPECT_TRUE(fs::exists(elsewhere / "precious"));
}

TEST_F(ClientFolders, GiveRootItsOwnTemporaryFolderAndResetTheSupportFolder) {
  if (::geteuid() != 0) GTEST_SKIP() << "the root temporary folder is root's";
  const std::string support = under("/Library/Application Support/VESK");
  EXPECT_EQ(veskTmpDir(), support + "/tmp");
  EXPECT_EQ(veskTmpFile("/name"), support + "/tmp//name");
  const Attributes tmp = attributesOf(support + "/tmp");
  EXPECT_EQ(tmp.owner, 0u);
  EXPECT_EQ(tmp.group, 80u);
  EXPECT_EQ(tmp.mode, 0700u);
  const Attributes a = attributesOf(support);
  EXPECT_EQ(a.group, 0u);
  EXPECT_EQ(a.mode, 0755u);

  ::chmod((support + "/tmp").c_str(), 0777);
  ::chmod(support.c_str(), 0700);
  rootTempDir();
  EXPECT_EQ(attributesOf(support + "/tmp").mode, 0700u);
  EXPECT_EQ(attributesOf(support).mode, 0755u);
}

// What veskTmpDir answers in a child that runs as `nobody`, with TMPDIR set to `tmp`.
std::string tmpDirAsNobody(const std::string& tmp) {
  int out[2];
  if (::pipe(out) != 0) return "pipe failed";
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv("TMPDIR", tmp.c_str(), 1);
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
    const std::string dir = veskTmpDir();
    (void)!::write(out[1], dir.data(), dir.size());
    ::_exit(0);
  }
  ::close(out[1]);
  std::string answer;
  char buffer[512];
  for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;) answer.append(buffer, n);
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return answer;
}

TEST_F(ClientFolders, GiveAnotherUserVESKInTheirOwnTemporaryFolder) {
  test::TemporaryFolder tmp;
  ::chmod(tmp.path().c_str(), 0777);
  if (::geteuid() != 0) GTEST_SKIP() << "switching to another user needs root";

  // A plain file named VESK is replaced by a folder; the client's own folders are untouched.
  const fs::path file = tmp.write("VESK", "not a folder", 0666);
  ::chown(file.c_str(), 65534, 65534);
  EXPECT_EQ(tmpDirAsNobody(tmp.path().string()), (tmp.path() / "VESK").string());
  const Attributes a = attributesOf((tmp.path() / "VESK").string());
  EXPECT_TRUE(a.folder);
  EXPECT_EQ(a.owner, 65534u);
  EXPECT_FALSE(fs::exists(under("/Library/Application Support")));
}

}  // namespace
}  // namespace vesk
