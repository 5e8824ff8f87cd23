#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "agent/CanRunOnThisOSXVersionCommand.h"
#include "agent/VKEnvironmentInfo.h"
#include "foundation/Exception.h"
#include "helpers/TestSupport.h"
#include "logging/VKLogging.h"

namespace vesk {
namespace {

class EnvironmentInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("VESK_ROOT", root_.path().c_str(), 1);
    ::unsetenv("VESK_OS_VERSION");
    VKEnvironmentInfo::invalidateCachedData();
  }
  void TearDown() override { ::unsetenv("VESK_ROOT"); }

  // A stand-in `defaults` that records its arguments and prints `output`.
  void installDefaults(const std::string& output) {
    root_.write("usr/bin/defaults",
                "#!/bin/sh\necho \"$@\" > \"$VESK_ROOT/args\"\ncat <<'EOF'\n" + output + "\nEOF\n",
                0755);
  }

  test::TemporaryFolder root_;
};

TEST_F(EnvironmentInfo, ComputerNameComesFromTheSystemConfigurationAndIsCachedUntilInvalidated) {
  EXPECT_EQ(VKEnvironmentInfo::getComputerName(), "No Name");  // no defaults tool at all
  installDefaults(
      "{\n    Network = { };\n    System = {\n        ComputerName = \"Office Mac\";\n    };\n}");
  EXPECT_EQ(VKEnvironmentInfo::getComputerName(), "No Name");
  VKEnvironmentInfo::invalidateCachedData();
  EXPECT_EQ(VKEnvironmentInfo::getComputerName(), "Office Mac");
  EXPECT_EQ(test::readFile(root_.path() / "args"),
            "read " + root_.path().string() +
                "/Library/Preferences/SystemConfiguration/preferences System\n");
  installDefaults("{ System = { HostName = x; }; }");
  VKEnvironmentInfo::invalidateCachedData();
  EXPECT_EQ(VKEnvironmentInfo::getComputerName(), "No Name");
}

TEST_F(EnvironmentInfo, LogLinesNameTheComputerOnceTheCommandLineIsUpAndAFailedLookupDoesNotHang) {
  // No defaults tool: finding the name logs that it could not run, from inside a log line.
  VKCommand::verbose();  // the command base hands its sources to the log writer
  VKLogging::logEvent("hello");
  installDefaults("{ System = { ComputerName = \"Office Mac\"; }; }");
  VKEnvironmentInfo::invalidateCachedData();
  VKLogging::logEvent("again");
  const std::string log = test::readFile(root_.path() / "private/var/log/vesk.log");
  const std::string me = " vesk[" + std::to_string(::getpid()) + "]: ";
  EXPECT_NE(log.find(" No Name" + me + "Error executing command: ("), std::string::npos) << log;
  EXPECT_NE(log.find(" No Name" + me + "hello\n"), std::string::npos) << log;
  EXPECT_TRUE(log.ends_with(" Office Mac" + me + "again\n")) << log;
}

TEST_F(EnvironmentInfo, ArchitectureIsUnameOrEmptyWhenItFails) {
  ::unsetenv("VESK_ROOT");
  utsname names{};
  ::uname(&names);
  EXPECT_EQ(VKEnvironmentInfo::getArchitectureType(), names.machine);
  ::setenv("VESK_ROOT", root_.path().c_str(), 1);
  root_.write("usr/bin/uname", "#!/bin/sh\necho broken\nexit 2\n", 0755);
  EXPECT_EQ(VKEnvironmentInfo::getArchitectureType(), "");
}

TEST_F(EnvironmentInfo, VersionChecksRaiseWithTheRequiredVersion) {
  ::setenv("VESK_OS_VERSION", "10.7.5", 1);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(VKEnvironmentInfo::isLionOrGreater());
  EXPECT_FALSE(VKEnvironmentInfo::isMountainLionOrGreater());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  try {
    VKEnvironmentInfo::mountainLionOrGreaterCheck();
    FAIL() << "10.7.5 is older than 10.8.0";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "VESK OS Version");
    EXPECT_EQ(e.reason(), "This application must be run on Mac OS X v10.8.0 or later.");
  }
  ::unsetenv("VESK_OS_VERSION");
  EXPECT_NO_THROW(VKEnvironmentInfo::supportedOSCheck());
}

TEST_F(EnvironmentInfo, CanRunAnswersNoBelow10Point7) {
  // The entry point refuses such systems first; the verb still answers for itself.
  ::setenv("VESK_OS_VERSION", "10.6.8", 1);
  testing::internal::CaptureStdout();
  const auto command = VKCommand::create<CanRunOnThisOSXVersionCommand>({"veskAgent"});
  EXPECT_EQ(command->validateAndExecute(), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "NO\n");
}

TEST_F(EnvironmentInfo, TheRootCheckRefusesAnOrdinaryUser) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to become another user";
  EXPECT_NO_THROW(VKEnvironmentInfo::rootCheck());
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (::setresuid(65534, 65534, 65534) != 0) ::_exit(10);
    try {
      VKEnvironmentInfo::rootCheck();
      ::_exit(11);
    } catch (const Exception& e) {
      const bool right =
          e.name() == "VESK Root User" &&
          e.reason() == "This application must be run as root. Try the sudo command.";
      ::_exit(right ? 0 : 12);
    }
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace vesk
