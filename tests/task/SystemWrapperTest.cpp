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

TEST(ShellCommandLine, QuotesEveryWordSoTheShellPassesItUnchanged) {
  EXPECT_EQ(SystemWrapper::commandStringFromArray({}), "");
  EXPECT_EQ(SystemWrapper::commandStringFromArray({"it's"}), "'it'\\''s'");
  const std::string line = SystemWrapper::commandStringFromArray(
      {"/usr/bin/printf", "%s|", "a  b", "it's", "$HOME", "*", "`id`", ""});
  Error error("untouched", 0);
  EXPECT_EQ(SystemWrapper().executeSystemCommand(line, &error), "a  b|it's|$HOME|*|`id`||");
  EXPECT_EQ(error.domain(), "untouched");
}

TEST(SystemCommand, CapturesBothStreamsReportsTheExitStatusAndNeverWritesThroughALink) {
  SystemWrapper wrapper;
  Error error;
  EXPECT_EQ(wrapper.executeSystemCommand("sh -c 'echo out; echo err >&2; exit 3'", &error),
            "out\nerr\n");
  EXPECT_EQ(error, Error(VKErrorDomain, 3));
  EXPECT_FALSE(fs::exists(capturePath()));

  // A shell ended by a signal counts as status 0: the status is the wait status / 256.
  Error untouched("untouched", 0);
  EXPECT_EQ(wrapper.executeSystemCommand("echo before; kill -9 $$", &untouched), "");
  EXPECT_EQ(untouched.domain(), "untouched");

  test::TemporaryFolder folder;
  const fs::path victim = folder.write("victim", "precious\n");
  fs::create_symlink(victim, capturePath());
  EXPECT_EQ(wrapper.executeSystemCommand("echo overwritten"), "overwritten\n");
  EXPECT_EQ(test::readFile(victim), "precious\n");
  EXPECT_FALSE(fs::exists(fs::symlink_status(capturePath())));
}

TEST(ShellCommandWithProgress, ShowsTheLinesFramedAndAnswersThemWithoutTheMarker) {
  Error error("untouched", 0);
  testing::internal::CaptureStdout();
  const auto text = SystemWrapper().executeSystemCommandInShell(
      "echo '  spaced   words  '; echo second; sh -c 'exit 3'", "Installing", &error);
  // The lines pass through `read` and an unquoted echo: blanks are collapsed, as accepted.
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "<progress status=\"Installing\">\nspaced words\nsecond\n<exitCode>3</exitCode>\n"
            "</progress>\n");
  EXPECT_EQ(text, "spaced words\nsecond\n\n");
  // The status is the pipeline's, whose last command (the script) succeeded.
  EXPECT_EQ(error.domain(), "untouched");
  EXPECT_FALSE(fs::exists(capturePath()));
  EXPECT_FALSE(fs::exists(fsPath(fmt::format("/private/tmp/redirection{}.sh", ::getpid()))));
}

TEST(SystemCommand, AnswersNothingWhenTheCaptureCannotBeMadeButStillFramesTheProgress) {
  test::TemporaryFolder root;  // no private/tmp in it
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  Error error;
  EXPECT_EQ(SystemWrapper().executeSystemCommand("echo hi", &error), std::nullopt);
  EXPECT_EQ(error, Error(VKErrorDomain, 1));
  testing::internal::CaptureStdout();
  EXPECT_EQ(SystemWrapper().executeSystemCommandInShell("echo hi", "Step", &error), std::nullopt);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "<progress status=\"Step\">\n</progress>\n");
  EXPECT_EQ(error, Error(VKErrorDomain, 1));
}

}  // namespace
}  // namespace vesk
