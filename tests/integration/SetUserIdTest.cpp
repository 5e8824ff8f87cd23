// The agent is installed set-user-id root: its environment belongs to whoever started it and
// must not redirect its paths or change what system it believes it runs on.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

// A copy of one of the test helpers, in a folder of its own, that the test can give away.
class Probe {
 public:
  explicit Probe(const std::string& name) : path_(folder_.path() / name) {
    std::filesystem::copy_file(std::string(VESK_HELPERS_DIR) + "/" + name, path_);
    ::chmod(folder_.path().c_str(), 0755);
  }
  test::ProgramResult run(const std::string& mode,
                          const std::vector<std::string>& environment) const {
    return test::runProgram(path_.string(), {mode}, environment);
  }
  // From now on it runs as `uid` (nobody unless told), whoever starts it.
  bool makeSetUserIdNobody(uid_t uid = 65534) const {
    return ::chown(path_.c_str(), uid, uid) == 0 && ::chmod(path_.c_str(), 04755) == 0;
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  test::TemporaryFolder folder_;
  std::filesystem::path path_;
};

TEST(SetUserId, TheSandboxAndVersionOverridesAreIgnoredAndNotPassedOn) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to give a program to another user";
  const Probe probe("probe");

  std::vector<std::string> environment = test::environmentWithout({"VESK_ROOT", "VESK_OS_VERSION"});
  environment.push_back("VESK_ROOT=/tmp/elsewhere");
  environment.push_back("VESK_OS_VERSION=10.6.8");

  // Without the bit the overrides apply, so the check below can tell the difference.
  const auto plain = probe.run("env", environment);
  EXPECT_EQ(
      plain.output,
      "children see=/tmp/elsewhere\npath=/tmp/elsewhere/usr/bin/gzip\nos=10.6.8\nuid=0 euid=0\n");

  ASSERT_TRUE(probe.makeSetUserIdNobody());
  const auto elevated = probe.run("env", environment);
  if (elevated.output.find("euid=0") != std::string::npos)
    GTEST_SKIP() << "this file system ignores the set-user-id bit";
  EXPECT_EQ(elevated.output,
            "children see=(unset)\npath=/usr/bin/gzip\nos=14.0\nuid=0 euid=65534\n");
  EXPECT_EQ(elevated.status, 0);
}

TEST(SetUserId, ChildrenGetAFixedPathAndNoneOfTheStartersShellSettings) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to give a program to another user";
  const Probe probe("probe");
  const std::vector<std::string> hostile = {"PATH=/tmp/evil:/usr/bin",
                                            "BASH_ENV=/tmp/evil.sh",
                                            "IFS=x",
                                            "PYTHONPATH=/tmp/evil",
                                            "LANG=C.UTF-8",
                                            "LC_ALL=/tmp/evil",
                                            "TERM=xterm"};

  const auto plain = probe.run("task-env", hostile);
  EXPECT_NE(plain.output.find("BASH_ENV=/tmp/evil.sh\n"), std::string::npos) << plain.output;
  EXPECT_NE(plain.output.find("PATH=/tmp/evil:/usr/bin:/usr/local/vesk/bin\n"), std::string::npos);

  ASSERT_TRUE(probe.makeSetUserIdNobody());
  const auto elevated = probe.run("task-env", hostile);
  if (elevated.output.starts_with("euid=0\n"))
    GTEST_SKIP() << "this file system ignores the set-user-id bit";
  EXPECT_EQ(
      elevated.output,
      "euid=65534\nPATH=/usr/bin:/bin:/usr/sbin:/sbin:/usr/local/vesk/bin\nLANG=C.UTF-8\nTERM=xterm\n");
}

TEST(SetUserId, TheBusKnowsAnAgentByTheUserWhoStartedIt) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to give a program to another user";
  test::PrivateBus bus;
  const Probe probe("bus_probe");
  ASSERT_TRUE(probe.makeSetUserIdNobody(0));  // set-user-id root, as the agent is installed
  // A set-user-id process uses the system's bus whatever its environment says: in a mount
  // namespace of its own, the private bus takes the system's place.
  const std::string script =
      "mount -t tmpfs tmpfs /run/dbus && touch /run/dbus/system_bus_socket && "
      "mount --bind '" +
      bus.socketPath() +
      "' /run/dbus/system_bus_socket || exit 99; "
      "exec setpriv --reuid=65534 --regid=65534 --clear-groups '" +
      probe.path().string() + "' whoami";
  const auto run = test::runProgram(
      "/usr/bin/unshare", {"--mount", "--propagation", "private", "/bin/sh", "-c", script},
      test::environmentWithout({}), true);
  if (run.status == 99 || run.output.starts_with("unshare:"))
    GTEST_SKIP() << "no mount namespace for the bus: " << run.output;
  EXPECT_EQ(run.output, "uid 65534\n");
  EXPECT_EQ(run.status, 0);
}

}  // namespace
}  // namespace vesk
