// Runs the built veskAgent as a child process and checks what it prints and its exit status.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "helpers/TestSupport.h"

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
    std::string output;  // "*" for the agent, which this build does not have
    int status;
  } cases[] = {
      {{"version"}, "", kVersion, 0},
      {{"-version"}, "", kVersion, 0},
      {{"version", "", "-x", "", ""}, "", kVersion, 0},
      {{"version", huge, "-" + huge, huge}, "", kVersion, 0},
      {{"version", "-randomDelaySeconds", "1"}, "", "Delaying 1 seconds...\n" + kVersion, 0},
      {{"version", "-randomDelaySeconds", "-5"}, "", kVersion, 0},
      {{"version", "-randomDelaySeconds", "soon"}, "", kVersion, 0},
      {{"canRunOnThisOSXVersion"}, "", "YES\n", 0},
      {{"-canRunOnThisOSXVersion"}, "10.7", "YES\n", 0},
      {{"canRunOnThisOSXVersion"}, "10.7.0", "YES\n", 0},
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
  for (const Case& c : cases) {
    const auto result = agent(c.arguments, c.osVersion);
    const std::string what =
        (c.arguments.empty() ? "" : c.arguments[0].substr(0, 30)) + " on " + c.osVersion;
    if (c.output == "*") {
      EXPECT_EQ(result.output.find("version="), std::string::npos) << what;
      EXPECT_EQ(result.output.find("YES"), std::string::npos) << what;
    } else {
      EXPECT_EQ(result.output, c.output) << what;
    }
    EXPECT_EQ(result.status, c.status) << what;
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

}  // namespace
}  // namespace vesk
