// The built programs as child processes: what veskAgent prints and its exit status, and what a
// set-user-id run (as the agent is installed) takes from the environment of whoever started it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "helpers/TestSupport.h"
#include "platform/ChildProcess.h"

namespace vesk {
namespace {

const std::string kAgent = VESK_AGENT_PATH;
const std::string kVersion = "version=9.96+LEG\n";

test::ProgramResult agent(const std::vector<std::string>& arguments, const char* osVersion = "") {
  std::vector<std::string> environment = test::environmentWithout({"VESK_ROOT", "VESK_OS_VERSION"});
  if (*osVersion != '\0') environment.push_back(std::string("VESK_OS_VERSION=") + osVersion);
  return test::runProgram(kAgent, arguments, environment, /*mergeStderr=*/true);
}

TEST(CommandLine, ArgumentOneSelectsTheVerbAndOldSystemsAreRefused) {
  const std::string oldSystem =
      "\nThere was an error.\n\n     This application must be run on Mac OS X v10.7.0 or "
      "later.\n\n";
  const std::string huge(100000, 'a');
  struct Case {
    std::vector<std::string> arguments;
    const char* osVersion;
    std::string output;  // "*" for the agent
    int status;
  } cases[] = {
      {{"version"}, "", kVersion, 0},
      {{"-version"}, "", kVersion, 0},
      {{"version", "", "-x", "", ""}, "", kVersion, 0},
      {{"version", huge, "-" + huge, huge}, "", kVersion, 0},
      {{"version", "-randomDelaySeconds", "1"}, "", "Delaying 1 seconds...\n" + kVersion, 0},
      {{"canRunOnThisOSXVersion"}, "", "YES\n", 0},
      {{"-canRunOnThisOSXVersion"}, "10.7", "YES\n", 0},
      {{"canRunOnThisOSXVersion"}, "10.10", "YES\n", 0},
      {{"-verbose", "version"}, "", "*", 1},
      {{}, "", "*", 1},
      {{"Version"}, "", "*", 1},
      {{"", ""}, "", "*", 1},
      {{"version"}, "10.6.8", oldSystem, 1},
      {{"canRunOnThisOSXVersion"}, "10.6", oldSystem, 1},
      {{}, "9.9.9", oldSystem, 1},
      {{"-showPID"}, "10.6.8", oldSystem, 1},
  };
  const test::TemporaryFolder sandbox;
  test::useSandbox(sandbox.path());
  for (const Case& c : cases) {
    const std::string what =
        (c.arguments.empty() ? "" : c.arguments[0].substr(0, 30)) + " on " + c.osVersion;
    if (c.output != "*") {
      const auto result = agent(c.arguments, c.osVersion);
      EXPECT_EQ(result.output, c.output) << what;
      EXPECT_EQ(result.status, c.status) << what;
      continue;
    }
    // The agent runs until it is told to stop; a trailing flag makes it say when it is at work.
    std::vector<std::string> arguments = c.arguments;
    arguments.push_back("-verbose");
    auto running = ChildProcess::launch(
        {kAgent, arguments,
         test::environmentWithout({"VESK_OS_VERSION", "DBUS_SYSTEM_BUS_ADDRESS"}), StdioMode::kPipe,
         StdioMode::kPipe, StdioMode::kSameAsStdout});
    running->closeInput();
    std::string printed;
    EXPECT_TRUE(test::waitForOutput(*running, printed, "Monitoring for events...")) << what;
    running->terminate();
    running->waitUntilExit();
    EXPECT_EQ(printed.find("version="), std::string::npos) << what;
    // The next agent would stop whatever process now has this one's number.
    std::filesystem::remove(sandbox.path() / "Library/Application Support/VESK/bin" /
                            (std::string(::getpwuid(::getuid())->pw_name) + ".pid"));
  }
}

TEST(CommandLine, PrintsProgressAndThePidOnceAndSurvivesIllFormedText) {
  const auto verbose = agent({"version", "-verbose", "-target", "/Volumes/\xff\xfe/"});
  EXPECT_EQ(verbose.status, 0);
  EXPECT_THAT(verbose.output, ::testing::StartsWith(" verbose: Initializing command state with "));
  EXPECT_THAT(verbose.output, ::testing::HasSubstr("/Volumes/\uFFFD\uFFFD"));
  EXPECT_THAT(verbose.output, ::testing::EndsWith("\n" + kVersion));
  // The arguments are parsed twice; the line still appears once.
  EXPECT_THAT(agent({"version", "-showPID"}).output,
              ::testing::MatchesRegex("Running with PID:\\([0-9]+\\)\nversion=9.96\\+LEG\n"));

  // Argument 0 that is not UTF-8: the program is started through a link with such a name.
  test::TemporaryFolder folder;
  const std::filesystem::path link = folder.path() / "vesk\xff\xfe";
  std::filesystem::create_symlink(kAgent, link);
  const auto linked = test::runProgram(link.string(), {"version"},
                                       test::environmentWithout({"VESK_OS_VERSION"}), true);
  EXPECT_EQ(linked.output, kVersion);
  EXPECT_EQ(linked.status, 0);
}

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

TEST(SetUserId, TheEnvironmentRedirectsNothingAndChildrenGetNoneOfTheStartersShellSettings) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to give a program to another user";
  const Probe probe("probe");
  std::vector<std::string> environment = test::environmentWithout({"VESK_ROOT", "VESK_OS_VERSION"});
  environment.insert(environment.end(), {"VESK_ROOT=/tmp/elsewhere", "VESK_OS_VERSION=10.6.8"});
  const std::vector<std::string> hostile = {"PATH=/tmp/evil:/usr/bin",
                                            "BASH_ENV=/tmp/evil.sh",
                                            "IFS=x",
                                            "PYTHONPATH=/tmp/evil",
                                            "LANG=C.UTF-8",
                                            "LC_ALL=/tmp/evil",
                                            "TERM=xterm"};

  // Without the bit the overrides apply, so the checks below can tell the difference.
  EXPECT_EQ(
      probe.run("env", environment).output,
      "children see=/tmp/elsewhere\npath=/tmp/elsewhere/usr/bin/gzip\nos=10.6.8\nuid=0 euid=0\n");
  const std::string plain = probe.run("task-env", hostile).output;
  EXPECT_NE(plain.find("BASH_ENV=/tmp/evil.sh\n"), std::string::npos) << plain;
  EXPECT_NE(plain.find("PATH=/tmp/evil:/usr/bin:/usr/local/vesk/bin\n"), std::string::npos);

  ASSERT_TRUE(probe.makeSetUserIdNobody());
  const auto elevated = probe.run("env", environment);
  if (elevated.output.find("euid=0") != std::string::npos)
    GTEST_SKIP() << "this file system ignores the set-user-id bit";
  EXPECT_EQ(elevated.output,
            "children see=(unset)\npath=/usr/bin/gzip\nos=14.0\nuid=0 euid=65534\n");
  EXPECT_EQ(
      probe.run("task-env", hostile).output,
      "euid=65534\nPATH=/usr/bin:/bin:/usr/sbin:/sbin:/usr/local/vesk/bin\nLANG=C.UTF-8\nTERM=xterm\n");
}

}  // namespace
}  // namespace vesk
