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

using ::testing::HasSubstr;
using ::testing::Not;

const std::string kAgent = VESK_AGENT_PATH;
const std::string kOldSystemError =
    "\nThere was an error.\n\n     This application must be run on Mac OS X v10.7.0 or later.\n\n";

test::ProgramResult agent(const std::vector<std::string>& arguments,
                          const std::vector<std::string>& extraEnvironment = {}) {
  std::vector<std::string> environment = test::environmentWithout({"VESK_ROOT", "VESK_OS_VERSION"});
  environment.insert(environment.end(), extraEnvironment.begin(), extraEnvironment.end());
  return test::runProgram(kAgent, arguments, environment, /*mergeStderr=*/true);
}

// The fall-through verb: whatever it is in this build, it is not one of the two small verbs.
void expectAgentVerb(const test::ProgramResult& result) {
  EXPECT_THAT(result.output, Not(HasSubstr("version=")));
  EXPECT_THAT(result.output, Not(HasSubstr("YES")));
  EXPECT_EQ(result.status, 1);
}

TEST(CommandLine, VersionPrintsTheVersionLineWhicheverSpellingIsUsed) {
  for (const char* verb : {"version", "-version"}) {
    const auto result = agent({verb});
    EXPECT_EQ(result.output, "version=9.96+LEG\n") << verb;
    EXPECT_EQ(result.status, 0) << verb;
  }
  const auto verbose = agent({"version", "-verbose"});
  EXPECT_EQ(verbose.status, 0);
  EXPECT_THAT(verbose.output, ::testing::StartsWith(" verbose: Initializing command state with "));
  EXPECT_THAT(verbose.output, ::testing::EndsWith("\nversion=9.96+LEG\n"));
}

TEST(CommandLine, OnlyArgumentOneSelectsTheVerb) {
  expectAgentVerb(agent({"-verbose", "version"}));
  expectAgentVerb(agent({}));
  expectAgentVerb(agent({"Version"}));
  expectAgentVerb(agent({"launchAgent"}));
  expectAgentVerb(agent({"", ""}));
}

TEST(CommandLine, CanRunAnswersYesFromVersion10Point7On) {
  for (const char* version : {"", "10.7", "10.7.0", "10.10", "10.9.5"}) {
    const auto result =
        agent({"canRunOnThisOSXVersion"}, {std::string("VESK_OS_VERSION=") + version});
    EXPECT_EQ(result.output, "YES\n") << version;
    EXPECT_EQ(result.status, 0) << version;
  }
  EXPECT_EQ(agent({"-canRunOnThisOSXVersion"}).output, "YES\n");
}

TEST(CommandLine, EveryVerbRefusesASystemOlderThan10Point7) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"version"}, {"canRunOnThisOSXVersion"}, {}, {"-showPID"}}) {
    for (const char* version : {"10.6.8", "10.6", "9.9.9"}) {
      const auto result = agent(arguments, {std::string("VESK_OS_VERSION=") + version});
      EXPECT_EQ(result.output, kOldSystemError) << version;
      EXPECT_EQ(result.status, 1) << version;
    }
  }
}

TEST(CommandLine, ShowPidPrintsOnceAlthoughTheArgumentsAreParsedTwice) {
  const auto result = agent({"version", "-showPID"});
  EXPECT_EQ(result.status, 0);
  const std::string pidLine = "Running with PID:(";
  ASSERT_EQ(result.output.rfind(pidLine, 0), 0u) << result.output;
  EXPECT_EQ(result.output.find(pidLine, 1), std::string::npos) << result.output;
  EXPECT_THAT(result.output,
              ::testing::MatchesRegex("Running with PID:\\([0-9]+\\)\nversion=9.96\\+LEG\n"));
}

TEST(CommandLine, RandomDelayIsAnnouncedAndTakenOnce) {
  const auto result = agent({"version", "-randomDelaySeconds", "1"});
  EXPECT_EQ(result.output, "Delaying 1 seconds...\nversion=9.96+LEG\n");
  EXPECT_EQ(agent({"version", "-randomDelaySeconds", "-5"}).output, "version=9.96+LEG\n");
  EXPECT_EQ(agent({"version", "-randomDelaySeconds", "soon"}).output, "version=9.96+LEG\n");
}

TEST(CommandLine, SurvivesHugeEmptyAndIllFormedArguments) {
  const std::string huge(100000, 'a');
  EXPECT_EQ(agent({"version", huge, "-" + huge, huge}).output, "version=9.96+LEG\n");
  EXPECT_EQ(agent({"version", "", "-x", "", ""}).output, "version=9.96+LEG\n");

  const auto illFormed = agent({"version", "-verbose", "-target", "/Volumes/\xff\xfe/"});
  EXPECT_EQ(illFormed.status, 0);
  EXPECT_THAT(illFormed.output, HasSubstr("/Volumes/\uFFFD\uFFFD"));
  EXPECT_THAT(illFormed.output, ::testing::EndsWith("version=9.96+LEG\n"));

  // Argument 0 that is not UTF-8: the program is started through a link with such a name.
  test::TemporaryFolder folder;
  const std::filesystem::path link = folder.path() / "vesk\xff\xfe";
  std::filesystem::create_symlink(kAgent, link);
  const auto linked = test::runProgram(link.string(), {"version"},
                                       test::environmentWithout({"VESK_OS_VERSION"}), true);
  EXPECT_EQ(linked.output, "version=9.96+LEG\n");
  EXPECT_EQ(linked.status, 0);
}

}  // namespace
}  // namespace vesk
