// The agent is installed set-user-id root: its environment belongs to whoever started it and
// must not redirect its paths or change what system it believes it runs on.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "helpers/TestSupport.h"

namespace vesk {
namespace {

TEST(SetUserId, TheSandboxAndVersionOverridesAreIgnoredAndNotPassedOn) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to give a program to another user";
  test::TemporaryFolder folder;
  const std::filesystem::path probe = folder.path() / "env_probe";
  std::filesystem::copy_file(std::string(VESK_HELPERS_DIR) + "/env_probe", probe);
  ::chmod(folder.path().c_str(), 0755);

  std::vector<std::string> environment = test::environmentWithout({"VESK_ROOT", "VESK_OS_VERSION"});
  environment.push_back("VESK_ROOT=/tmp/elsewhere");
  environment.push_back("VESK_OS_VERSION=10.6.8");

  // Without the bit the overrides apply, so the check below can tell the difference.
  const auto plain = test::runProgram(probe.string(), {}, environment);
  EXPECT_EQ(
      plain.output,
      "children see=/tmp/elsewhere\npath=/tmp/elsewhere/usr/bin/gzip\nos=10.6.8\nuid=0 euid=0\n");

  ASSERT_EQ(::chown(probe.c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(probe.c_str(), 04755), 0);
  const auto elevated = test::runProgram(probe.string(), {}, environment);
  if (elevated.output.find("euid=0") != std::string::npos)
    GTEST_SKIP() << "this file system ignores the set-user-id bit";
  EXPECT_EQ(elevated.output,
            "children see=(unset)\npath=/usr/bin/gzip\nos=14.0\nuid=0 euid=65534\n");
  EXPECT_EQ(elevated.status, 0);
}

TEST(SetUserId, ChildrenGetAFixedPathAndNoneOfTheStartersShellSettings) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to give a program to another user";
  test::TemporaryFolder folder;
  const std::filesystem::path probe = folder.path() / "task_env_probe";
  std::filesystem::copy_file(std::string(VESK_HELPERS_DIR) + "/task_env_probe", probe);
  ::chmod(folder.path().c_str(), 0755);
  const std::vector<std::string> hostile = {"PATH=/tmp/evil:/usr/bin",
                                            "BASH_ENV=/tmp/evil.sh",
                                            "IFS=x",
                                            "PYTHONPATH=/tmp/evil",
                                            "LANG=C.UTF-8",
                                            "LC_ALL=/tmp/evil",
                                            "TERM=xterm"};

  const auto plain = test::runProgram(probe.string(), {}, hostile);
  EXPECT_NE(plain.output.find("BASH_ENV=/tmp/evil.sh\n"), std::string::npos) << plain.output;
  EXPECT_NE(plain.output.find("PATH=/tmp/evil:/usr/bin:/usr/local/vesk/bin\n"), std::string::npos);

  ASSERT_EQ(::chown(probe.c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(probe.c_str(), 04755), 0);
  const auto elevated = test::runProgram(probe.string(), {}, hostile);
  if (elevated.output.starts_with("euid=0\n"))
    GTEST_SKIP() << "this file system ignores the set-user-id bit";
  EXPECT_EQ(
      elevated.output,
      "euid=65534\nPATH=/usr/bin:/bin:/usr/sbin:/sbin:/usr/local/vesk/bin\nLANG=C.UTF-8\nTERM=xterm\n");
}

}  // namespace
}  // namespace vesk
