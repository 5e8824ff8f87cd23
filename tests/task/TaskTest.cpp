#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "foundation/Paths.h"
#include "foundation/PropertyList.h"
#include "foundation/StringHelpers.h"
#include "helpers/TestSupport.h"
#include "task/SystemWrapper.h"
#include "task/VKLocalTask.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

Command shell(const std::string& script) { return {"/bin/sh", "-c", script}; }

// A client root of the test's own, so that what the runner logs can be read back.
class TaskRunner : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("VESK_ROOT", root_.path().c_str(), 1); }
  std::string logText() const { return test::readFile(root_.path() / "private/var/log/vesk.log"); }
  bool logged(const std::string& line) const {
    return logText().find("]: " + line + "\n") != std::string::npos;
  }

  test::TemporaryFolder root_;
};

// Records what a task streams (the task holds `delegate` weakly; it calls on the run's thread).
struct Recorder {
  std::shared_ptr<VESKTaskDelegate> delegate = std::make_shared<VESKTaskDelegate>();
  bool started = false;
  std::string joined;
  std::function<void(const std::string&)> onPiece;

  Recorder() {
    delegate->taskStartedProcess = [this](VESKTask&) { started = true; };
    delegate->taskReadString = [this](VESKTask&, const std::string& text) {
      EXPECT_TRUE(started) << "output before the start was told";
      joined += text;
      if (onPiece) onPiece(text);
    };
  }
};

TEST_F(TaskRunner, RunsCommandsWithoutAShellAndAnswersTheirOutputStripped) {
  struct Case {
    Command command;
    std::optional<std::string> answer;
    bool dropStderr;
    std::string output;
    Error error;
  };
  const Error untouched("untouched", 0);
  const Case cases[] = {
      {{"/bin/echo", "  word  "}, {}, true, "word", untouched},
      // Each argument reaches the program as it is: no shell splits or expands it.
      {{"/usr/bin/printf", "%s|", "a b", "$HOME", "*"}, {}, true, "a b|$HOME|*|", untouched},
      {shell("echo out; echo err >&2"), {}, true, "out", untouched},
      {shell("echo out; echo err >&2"), {}, false, "out\nerr", untouched},
      // Error text beyond what a pipe holds neither joins the output nor stalls the child.
      {shell("head -c 200000 /dev/zero >&2; echo done"), {}, true, "done", untouched},
      // A failed run still answers its output; the code is the exit status or the signal.
      {shell("echo partial; exit 3"), {}, true, "partial", Error(VESKTaskErrorDomain, 3)},
      {shell("kill -9 $$"), {}, true, "", Error(VESKTaskErrorDomain, 9)},
      {{"/no/such/program", "x"}, {}, true, "", Error(VESKTaskErrorDomain, 0)},
      {{}, {}, true, "", Error(VESKTaskErrorDomain, 0)},
      // The answer and one newline are written, then the input is closed.
      {shell("read a; if read b; then echo \"two:$b\"; else echo \"got:$a eof\"; fi"), "s3cret $x",
       true, "got:s3cret $x eof", untouched},
      // A child that never reads its input must not hurt this process, even with a large answer.
      {{"/bin/true"}, std::string(1 << 20, 'a'), true, "", untouched},
  };
  VKLocalTask task;  // one for all: a failed run leaves it usable
  for (const Case& c : cases) {
    SCOPED_TRACE(argumentString(c.command));
    Error error = untouched;
    EXPECT_EQ(task.executeAndAnswerPromptWith(c.command, c.answer, &error, c.dropStderr), c.output);
    EXPECT_EQ(error, c.error);
  }
  // A property list is parsed from the bytes as printed: no text, and blanks at the ends.
  const Value binary(Dictionary{{"bytes", Value(Data{0xff, 0x00, 0x0a, 0x20})}, {"n", 7}});
  const fs::path file = root_.write("binary.plist", binaryPropertyList(binary));
  EXPECT_EQ(task.executeReturningPlist({"/bin/cat", file.string()}), binary);
}

TEST(LocalTask, ChildrenFindTheClientToolsLastOnTheirPath) {
  ::unsetenv("VESK_ROOT");
  ::setenv("PATH", "/usr/bin:/bin", 1);
  VKLocalTask task;
  EXPECT_EQ(task.execute(shell("printf %s \"$PATH\"")), "/usr/bin:/bin:/usr/local/vesk/bin");
  ::unsetenv("PATH");
  const std::string environment = "\n" + task.execute({"/usr/bin/env"}) + "\n";
  EXPECT_NE(environment.find("\nPATH=/usr/local/vesk/bin\n"), std::string::npos) << environment;
}

TEST_F(TaskRunner, StreamsEachPieceOfOutputWhileTheChildRunsAndNotBeyondItsEnd) {
  // The child goes on only once the test has seen its first line: proof that output arrives
  // as it is written, not when the child has ended.
  const fs::path fifo = root_.path() / "go";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  Recorder recorder;
  recorder.onPiece = [&](const std::string& text) {
    if (text.find("first") != std::string::npos) std::ofstream(fifo) << "go\n";
  };
  VKLocalTask task;
  task.setDelegate(recorder.delegate);
  Error error;
  const std::string script =
      "echo first; read w < '" + fifo.string() + "'; echo \"then $w\"; echo oops >&2; exit 4";
  const std::string result = task.execute(shell(script), &error);
  EXPECT_EQ(error.code(), 4);
  // A streaming run reads the error pipe too, and its text joins the result.
  EXPECT_NE(result.find("oops"), std::string::npos);
  EXPECT_EQ(replaceAll(recorder.joined, "oops\n", ""), "first\nthen go\n");
  EXPECT_EQ(strip(replaceAll(result + "\n", "oops\n", "")), "first\nthen go");

  // The run ends with the child, not with a descendant that still holds the pipe.
  const auto descendant = static_cast<pid_t>(std::stol(task.execute(shell("sleep 30 & echo $!"))));
  EXPECT_EQ(::kill(descendant, 0), 0) << "the run waited for the descendant to end";
  ::kill(descendant, SIGKILL);
}

TEST_F(TaskRunner, StreamingKeepsTheOrderAndEveryCharacterOfALongStreamAndEchoesToTheConsole) {
  // Two-byte characters after one odd byte: reads of whole pages split characters, which
  // must reach the delegate whole.
  std::string accents = "x";
  for (int i = 0; i < 200000; ++i) accents += "\u00e9";
  const fs::path file = root_.write("accents", accents);
  Recorder recorder;
  VKLocalTask task;
  task.setDelegate(recorder.delegate);
  EXPECT_TRUE(task.execute({"/bin/cat", file.string()}) == accents);
  EXPECT_TRUE(recorder.joined == accents) << "the streamed text differs from what was printed";

  // Echoed piece by piece, with the error text mixed into the one pipe.
  testing::internal::CaptureStdout();
  EXPECT_EQ(VKLocalTask().executeAndAnswerPromptWith(shell("echo alpha; echo beta >&2"),
                                                     std::nullopt, nullptr, false, true),
            "alpha\nbeta");
  EXPECT_EQ(replaceAll(testing::internal::GetCapturedStdout(), "\n", ""), "alphabeta");
}

TEST_F(TaskRunner, TerminateFromAnotherThreadEndsTheRunningCommand) {
  auto delegate = std::make_shared<VESKTaskDelegate>();
  std::promise<pid_t> started;
  delegate->taskStartedProcess = [&](VESKTask& task) { started.set_value(task.processId()); };
  VKLocalTask task;
  task.setDelegate(delegate);
  Error error;
  std::string output = "unset";
  std::thread run([&] { output = task.execute({"/bin/sleep", "30"}, &error); });
  ASSERT_EQ(started.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  task.terminate();
  run.join();
  EXPECT_EQ(output, "");
  EXPECT_EQ(error.code(), SIGTERM);
  EXPECT_EQ(task.terminationStatus(), 0);  // the run is over: no current child
  task.terminate();                        // and nothing to signal
}

TEST_F(TaskRunner, ATimeoutEndsTheCommandsWholeGroupLogsAndKeepsItsOutput) {
  const std::string line =
      "Exception Encountered: The timeout was reached before the command finished executing.";
  VKLocalTask task;  // one for all: a timed-out run leaves it usable
  // The signal that ends the command: SIGKILL only for one that ignores SIGTERM.
  for (const auto& [script, status] : {std::pair{"trap '' TERM; echo before; sleep 30", SIGKILL},
                                       std::pair{"echo before; sleep 30; echo after", SIGTERM}}) {
    SCOPED_TRACE(script);
    Error error;
    testing::internal::CaptureStdout();
    // The command runs for thirty seconds unless the time-out ends it and all it started.
    auto run = std::async(std::launch::async,
                          [&] { return task.executeWithTimeout(shell(script), 0.3, &error); });
    ASSERT_EQ(run.wait_for(std::chrono::seconds(15)), std::future_status::ready)
        << "the command was waited out, not ended";
    EXPECT_EQ(run.get(), "before");
    EXPECT_EQ(error.code(), status);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + "\n");
  }
  EXPECT_TRUE(logged(line)) << logText();

  // Within its time a command runs to its end, however much it prints.
  Error none;
  EXPECT_EQ(task.executeWithTimeout(shell("head -c 1000000 /dev/zero | tr '\\0' x"), 60, &none),
            std::string(1000000, 'x'));
  EXPECT_TRUE(none.domain().empty());
}

TEST_F(TaskRunner, InputFromAFileReachesTheChildAndTheFileIsAlwaysDeleted) {
  VKLocalTask task;
  // Input, output and error text bigger than a pipe holds, all at the same time.
  const fs::path big = root_.write("big", std::string(4 << 20, 'q'));
  EXPECT_EQ(task.executeWithStdinFromFile(shell("cat; head -c 200000 /dev/zero >&2"), big),
            std::string(4 << 20, 'q'));
  EXPECT_FALSE(fs::exists(big));

  const fs::path kept = root_.write("failing", "x");
  Error error;
  EXPECT_EQ(task.executeWithStdinFromFile({"/no/such/tool"}, kept, &error), "");
  EXPECT_EQ(error.domain(), "com.vesksoftware.task.errors");
  EXPECT_FALSE(fs::exists(kept));
  EXPECT_TRUE(logged("Error executing command: (\n    /no/such/tool\n)")) << logText();
}

TEST_F(TaskRunner, BackgroundChildrenAnswerToSuspendResumeAndTerminate) {
  const auto state = [](pid_t pid) {
    const std::string stat = test::readFile("/proc/" + std::to_string(pid) + "/stat");
    return stat.substr(stat.rfind(')') + 2, 1);
  };
  VKLocalTask task;
  task.executeInBackground({"/bin/sleep", "30"});
  const pid_t pid = task.processId();
  ASSERT_GT(pid, 0);
  EXPECT_EQ(task.terminationStatus(), 0);
  task.suspend();
  EXPECT_TRUE(test::pollUntil([&] { return state(pid) == "T"; }, 30));
  task.resume();
  EXPECT_TRUE(test::pollUntil([&] { return state(pid) != "T"; }, 30));
  task.terminate();
  EXPECT_TRUE(test::pollUntil([&] { return task.terminationStatus() == SIGTERM; }, 30));

  task.executeInBackground({"/no/such/daemon"});
  EXPECT_TRUE(
      logged("Error executing command [(\n    /no/such/daemon\n)] launch path not accessible"))
      << logText();
}

TEST_F(TaskRunner, AThousandRunsLeaveNoDescriptorAndNoChildBehind) {
  const auto openDescriptors = [] {
    const fs::directory_iterator entries("/proc/self/fd");
    return std::distance(fs::begin(entries), fs::end(entries));
  };
  VKLocalTask task, streaming;
  Recorder recorder;
  streaming.setDelegate(recorder.delegate);
  const std::string notExecutable = root_.write("plain", "echo never\n", 0644).string();
  const auto before = openDescriptors();
  for (int i = 0; i < 250; ++i) {
    EXPECT_EQ(task.execute({"/bin/echo", "x"}), "x");
    EXPECT_EQ(streaming.execute({"/bin/echo", "y"}), "y");
    EXPECT_EQ(task.execute({i % 2 == 0 ? "/no/such/program" : notExecutable}), "");
    EXPECT_EQ(task.executeWithTimeout({"/bin/echo", "z"}, 10), "z");
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left unreaped";
}

TEST_F(TaskRunner, RunningAsAnotherUserKeepsEachWordWhole) {
  // A quote is escaped with a backslash, which a POSIX shell does not honour inside single
  // quotes; the client's other programs build their lines the same way.
  EXPECT_EQ(argumentString({"/bin/echo", "a b", "it's", "$HOME", "tab\t"}),
            "'/bin/echo' 'a b' 'it\\'s' '$HOME' 'tab\t'");
  if (::geteuid() != 0) GTEST_SKIP() << "su asks for a password unless run by root";
  root_.write("usr/bin/su", "#!/bin/sh\nexec /usr/bin/su \"$@\"\n", 0755);
  VKLocalTask task;
  Error error;
  EXPECT_EQ(task.executeAsUser({"/usr/bin/printf", "%s|", "a b", "$HOME", "c"}, "root", &error),
            "a b|$HOME|c|");
  EXPECT_TRUE(error.domain().empty());
  task.executeAsUser({"/bin/echo", "it's"}, "root", &error);
  EXPECT_NE(error.code(), 0);
}

// ---- Command lines run through the shell

std::string capturePath() { return fsPath(fmt::format("/private/tmp/{}.tmp", ::getpid())); }

TEST(SystemCommand, PassesQuotedWordsUnchangedCapturesBothStreamsAndNeverWritesThroughALink) {
  SystemWrapper wrapper;
  EXPECT_EQ(SystemWrapper::commandStringFromArray({"it's"}), "'it'\\''s'");
  const std::string line = SystemWrapper::commandStringFromArray(
      {"/usr/bin/printf", "%s|", "a  b", "it's", "$HOME", "*", "`id`", ""});
  EXPECT_EQ(wrapper.executeSystemCommand(line), "a  b|it's|$HOME|*|`id`||");

  Error error;
  EXPECT_EQ(wrapper.executeSystemCommand("sh -c 'echo out; echo err >&2; exit 3'", &error),
            "out\nerr\n");
  EXPECT_EQ(error, Error(VKErrorDomain, 3));

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

TEST(ShellCommandWithProgress, FramesTheLinesAndAnswersThemWithoutTheMarkerElseNothing) {
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

  // Without a folder to capture in, nothing is answered; the progress is still framed.
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  EXPECT_EQ(SystemWrapper().executeSystemCommand("echo hi", &error), std::nullopt);
  EXPECT_EQ(error, Error(VKErrorDomain, 1));
  error = Error();
  testing::internal::CaptureStdout();
  EXPECT_EQ(SystemWrapper().executeSystemCommandInShell("echo hi", "Step", &error), std::nullopt);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "<progress status=\"Step\">\n</progress>\n");
  EXPECT_EQ(error, Error(VKErrorDomain, 1));
}

}  // namespace
}  // namespace vesk
