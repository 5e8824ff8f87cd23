#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "foundation/Paths.h"
#include "helpers/TestSupport.h"
#include "task/SystemWrapper.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

std::string capturePath() { return fsPath(fmt::format("/private/tmp/{}.tmp", ::getpid())); }
std::string scriptPath() {
  return fsPath(fmt::format("/private/tmp/redirection{}.sh", ::getpid()));
}

TEST(ShellCommandLine, QuotesEveryWordSoTheShellPassesItUnchanged) {
  EXPECT_EQ(SystemWrapper::commandStringFromArray({}), "");
  EXPECT_EQ(SystemWrapper::commandStringFromArray({"one"}), "'one'");
  EXPECT_EQ(SystemWrapper::fixParamForCommandString("it's"), "'it'\\''s'");

  const std::string line = SystemWrapper::commandStringFromArray(
      {"/usr/bin/printf", "%s|", "a  b", "it's", "$HOME", "*", "`id`", ""});
  Error error("untouched", 0);
  EXPECT_EQ(SystemWrapper().executeSystemCommand(line, &error), "a  b|it's|$HOME|*|`id`||");
  EXPECT_EQ(error.domain(), "untouched");
}

TEST(SystemCommand, CapturesBothStreamsAndReportsTheExitStatus) {
  SystemWrapper wrapper;
  Error error;
  const auto text = wrapper.executeSystemCommand("sh -c 'echo out; echo err >&2; exit 3'", &error);
  EXPECT_EQ(text, "out\nerr\n");
  EXPECT_EQ(error.domain(), "com.vesksoftware.core.errors");
  EXPECT_EQ(error.code(), 3);
  EXPECT_TRUE(error.userInfo().empty());
  EXPECT_FALSE(fs::exists(capturePath()));

  // A shell ended by a signal counts as status 0: the status is the wait status / 256.
  Error untouched("untouched", 0);
  EXPECT_EQ(wrapper.executeSystemCommand("echo before; kill -9 $$", &untouched), "");
  EXPECT_EQ(untouched.domain(), "untouched");

  // The shell's own complaint is the capture.
  Error missing;
  const auto complaint = wrapper.executeSystemCommand("/no/such/tool", &missing);
  ASSERT_TRUE(complaint.has_value());
  EXPECT_NE(complaint->find("/no/such/tool"), std::string::npos);
  EXPECT_EQ(missing.code(), 127);
}

TEST(SystemCommand, NeverWritesThroughALinkLeftAtTheCaptureName) {
  test::TemporaryFolder folder;
  const fs::path victim = folder.write("victim", "precious\n");
  fs::create_symlink(victim, capturePath());
  EXPECT_EQ(SystemWrapper().executeSystemCommand("echo overwritten"), "overwritten\n");
  EXPECT_EQ(test::readFile(victim), "precious\n");
  EXPECT_FALSE(fs::exists(fs::symlink_status(capturePath())));
}

TEST(SystemCommand, AnswersNothingWhenTheCaptureCannotBeMade) {
  test::TemporaryFolder root;  // no private/tmp in it
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  Error error;
  EXPECT_EQ(SystemWrapper().executeSystemCommand("echo hi", &error), std::nullopt);
  EXPECT_EQ(error.code(), 1);
}

TEST(ShellCommandWithProgress, ShowsTheLinesFramedAndAnswersThemWithoutTheMarker) {
  SystemWrapper wrapper;
  Error error("untouched", 0);
  testing::internal::CaptureStdout();
  const auto text = wrapper.executeSystemCommandInShell(
      "echo '  spaced   words  '; echo second; sh -c 'exit 3'", "Installing", &error);
  const std::string console = testing::internal::GetCapturedStdout();

  // The lines pass through `read` and an unquoted echo: blanks are collapsed, as accepted.
  EXPECT_EQ(console,
            "<progress status=\"Installing\">\nspaced words\nsecond\n<exitCode>3</exitCode>\n"
            "</progress>\n");
  EXPECT_EQ(text, "spaced words\nsecond\n\n");
  // The status is the pipeline's, whose last command (the script) succeeded.
  EXPECT_EQ(error.domain(), "untouched");
  EXPECT_FALSE(fs::exists(capturePath()));
  EXPECT_FALSE(fs::exists(scriptPath()));
}

TEST(ShellCommandWithProgress, FramesTheOutputEvenWhenNothingCouldRun) {
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  Error error;
  testing::internal::CaptureStdout();
  EXPECT_EQ(SystemWrapper().executeSystemCommandInShell("echo hi", "Step", &error), std::nullopt);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "<progress status=\"Step\">\n</progress>\n");
  EXPECT_EQ(error.domain(), "com.vesksoftware.core.errors");
}

}  // namespace
}  // namespace vesk
