#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>

#include "config/ClientFolders.h"
#include "foundation/Paths.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

// "owner:group mode", and " folder" for a folder; the item itself, never what a link names.
std::string attributesOf(const fs::path& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return "missing";
  return fmt::format("{}:{} {:o}{}", info.st_uid, info.st_gid, info.st_mode & 07777,
                     S_ISDIR(info.st_mode) ? " folder" : "");
}

class ClientFolders : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "owners and other users need root";
    ::setenv("VESK_ROOT", root_.path().c_str(), 1);
  }
  std::string under(const std::string& path) const { return root_.path().string() + path; }

  test::TemporaryFolder root_;
};

TEST_F(ClientFolders, RepairARunFolderThatIsWrongInAnyWayByStartingAfresh) {
  const std::string relative = "Library/Application Support/VESK/run";
  const std::string run = under("/" + relative);
  // Other programs of the client look for the markers in these two folders.
  EXPECT_EQ(checkForTasksFile(), under("/private/var/run/vesk/checkForTasks"));
  EXPECT_EQ(enrollLockFile(), under("/private/var/run/vesk/veskEnroll"));
  EXPECT_EQ(reEnrollLockFile(), run + "/veskReEnroll");
  EXPECT_EQ(updateAlreadyInProgressLockFile(), run + "/veskUpdateAlreadyInProgress");
  EXPECT_EQ(attributesOf(run), "0:80 700 folder");
  EXPECT_EQ(attributesOf(under("/private/var/run/vesk")), "0:80 700 folder");
  root_.write(relative + "/keep", "x");
  EXPECT_EQ(veskRunDir(), run);
  EXPECT_TRUE(fs::exists(run + "/keep"));  // a proper folder keeps its contents

  // A link to a folder that looks proper is still removed, never followed.
  const fs::path elsewhere = root_.write("elsewhere/precious", "x").parent_path();
  ::chmod(elsewhere.c_str(), 0700);
  ::chown(elsewhere.c_str(), 0, 80);
  const std::pair<const char*, std::function<void()>> damages[] = {
      {"mode 0755", [&] { ::chmod(run.c_str(), 0755); }},
      {"group 0", [&] { ::chown(run.c_str(), 0, 0); }},
      {"a file in its place", [&] { fs::remove_all(run), root_.write(relative, "a file"); }},
      {"a link in its place",
       [&] { fs::remove_all(run), fs::create_directory_symlink(elsewhere, run); }},
  };
  for (const auto& [what, damage] : damages) {
    root_.write(relative + "/old", "x");
    damage();
    EXPECT_EQ(veskRunDir(), run);
    EXPECT_EQ(attributesOf(run), "0:80 700 folder") << what;
    EXPECT_TRUE(fs::is_empty(run)) << what;
  }
  EXPECT_EQ(attributesOf(elsewhere), "0:80 700 folder");
  EXPECT_TRUE(fs::exists(elsewhere / "precious"));
}

TEST_F(ClientFolders, GiveRootItsOwnTemporaryFolderAndResetTheSupportFolderButNoLinksTarget) {
  const std::string support = under("/Library/Application Support/VESK");
  EXPECT_EQ(veskTmpFile("/name"), support + "/tmp//name");
  EXPECT_EQ(attributesOf(support + "/tmp"), "0:80 700 folder");
  EXPECT_EQ(attributesOf(support), "0:0 755 folder");
  ::chmod((support + "/tmp").c_str(), 0777);
  ::chmod(support.c_str(), 0700);
  EXPECT_EQ(rootTempDir(), support + "/tmp");
  EXPECT_EQ(attributesOf(support + "/tmp"), "0:80 700 folder");
  EXPECT_EQ(attributesOf(support), "0:0 755 folder");

  // A link where either folder should be: what it points to keeps its owner and mode.
  for (const std::string& link : {support + "/tmp", support}) {
    const fs::path target = root_.path() / ("linked-" + fs::path(link).filename().string());
    fs::create_directory(target);
    ::chmod(target.c_str(), 0751);
    ::chown(target.c_str(), 65534, 65534);
    fs::remove_all(link);
    fs::create_directory_symlink(target, link);
    EXPECT_EQ(veskTmpDir(), support + "/tmp");
    EXPECT_EQ(attributesOf(target), "65534:65534 751 folder") << link;
  }
}

TEST_F(ClientFolders, GiveAnotherUserVESKInTheirOwnTemporaryFolder) {
  test::TemporaryFolder tmp;
  ::chmod(tmp.path().c_str(), 0777);
  // A plain file named VESK is replaced by a folder; the client's own folders are untouched.
  const fs::path file = tmp.write("VESK", "not a folder", 0666);
  ::chown(file.c_str(), 65534, 65534);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv("TMPDIR", tmp.path().c_str(), 1);
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
    ::_exit(veskTmpDir() == file.string() ? 0 : 1);
  }
  int status = -1;
  ::waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0) << "as nobody, veskTmpDir answered another folder";
  EXPECT_EQ(attributesOf(file), "65534:65534 700 folder");
  EXPECT_FALSE(fs::exists(under("/Library/Application Support")));
}

}  // namespace
}  // namespace vesk
