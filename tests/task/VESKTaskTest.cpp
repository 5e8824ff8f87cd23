#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>

#include "foundation/StringHelpers.h"
#include "helpers/TestSupport.h"
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

  test::TemporaryFolder root_;
};

// Records what a task tells its delegate, and lets a test wait for the child's start.
struct Recorder {
  std::shared_ptr<VESKTaskDelegate> delegate = std::make_shared<VESKTaskDelegate>();
  std::mutex lock;
  std::condition_variable started;
  pid_t startedPid = 0;
  std::vector<std::string> chunks;
  std::function<void(const std::string&)> onChunk;

  explicit Recorder(bool readStrings) {
    delegate->taskStartedProcess = [this](VESKTask& task) {
      std::lock_guard<std::mutex> hold(lock);
      startedPid = task.processId();
      started.notify_all();
    };
    if (readStrings)
      delegate->taskReadString = [this](VESKTask&, const std::string& text) {
        EXPECT_NE(startedPid, 0) << "output before the start was told";
        chunks.push_back(text);
        if (onChunk) onChunk(text);
      };
  }
  pid_t waitForStart() {
    std::unique_lock<std::mutex> hold(lock);
    EXPECT_TRUE(started.wait_for(hold, std::chrono::seconds(30), [&] { return startedPid != 0; }))
        << "the child was never reported started";
    return startedPid;
  }
  std::string joined() const {
    std::string all;
    for (const std::string& chunk : chunks) all += chunk;
    return all;
  }
};

std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

TEST(ArgumentString, QuotesEveryWordAndEscapesQuotesWithABackslash) {
  EXPECT_EQ(argumentString({"/bin/echo", "a b", "it's", "$HOME"}),
            "'/bin/echo' 'a b' 'it\\'s' '$HOME'");
  EXPECT_EQ(argumentString({"tab\t"}), "'tab\t'");
  EXPECT_EQ(argumentString({}), "");
}

TEST_F(TaskRunner, StreamsEachPieceOfOutputWhileTheChildRuns) {
  // The child goes on only once the test has seen its first line: proof that output arrives
  // as it is written, not when the child has ended.
  const fs::path fifo = root_.path() / "go";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  Recorder recorder(true);
  recorder.onChunk = [&](const std::string& text) {
    if (text.find("first") != std::string::npos) std::ofstream(fifo) << "go\n";
  };
  VKLocalTask task;
  task.setDelegate(recorder.delegate);
  Error error;
  const std::string result = task.execute(
      {"/bin/sh", "-c", "echo first; read w < \"$0\"; echo \"then $w\"; echo oops >&2; exit 4",
       fifo.string()},
      &error);
  EXPECT_EQ(error.code(), 4);
  // A streaming run reads the error pipe too, and its text joins the result.
  EXPECT_NE(result.find("oops"), std::string::npos);
  EXPECT_EQ(replaceAll(recorder.joined(), "oops\n", ""), "first\nthen go\n");
  EXPECT_EQ(strip(replaceAll(result + "\n", "oops\n", "")), "first\nthen go");
}

TEST_F(TaskRunner, StreamingKeepsTheOrderOfAStreamAndEchoesToTheConsole) {
  Recorder recorder(true);
  VKLocalTask task;
  task.setDelegate(recorder.delegate);
  std::string expected;
  for (int i = 1; i <= 200000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(task.execute({"/usr/bin/seq", "200000"}), strip(expected));
  EXPECT_EQ(recorder.joined(), expected);
  EXPECT_GT(recorder.chunks.size(), 1u);

  // Echoed piece by piece, with the error text mixed into the one pipe.
  VKLocalTask console;
  testing::internal::CaptureStdout();
  const std::string mixed = console.executeAndAnswerPromptWith(shell("echo alpha; echo beta >&2"),
                                                               std::nullopt, nullptr, false, true);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(mixed, "alpha\nbeta");
  EXPECT_EQ(replaceAll(printed, "\n", ""), "alphabeta");
}

TEST_F(TaskRunner, SixteenMegabytesOnEachStreamPassInEitherMode) {
  const Command big =
      shell("head -c 16777216 /dev/zero | tr '\\0' a; head -c 16777216 /dev/zero | tr '\\0' b >&2");
  VKLocalTask task;
  const std::string plain = task.execute(big);
  EXPECT_EQ(plain.size(), 16777216u);
  EXPECT_EQ(plain.find('b'), std::string::npos);

  Recorder recorder(true);
  task.setDelegate(recorder.delegate);
  const std::string streamed = task.execute(big);
  EXPECT_EQ(streamed.size(), 2u * 16777216u);
  EXPECT_EQ(recorder.joined().size(), 2u * 16777216u);
}

TEST_F(TaskRunner, AStreamingRunDoesNotWaitForADescendantHoldingThePipe) {
  Recorder recorder(true);
  VKLocalTask task;
  task.setDelegate(recorder.delegate);
  const std::string output = task.execute(shell("sleep 30 & echo $!"));
  const pid_t descendant = static_cast<pid_t>(std::stol(output));
  EXPECT_EQ(::kill(descendant, 0), 0) << "the run waited for the descendant to end";
  ::kill(descendant, SIGKILL);
}

TEST_F(TaskRunner, TerminateFromAnotherThreadEndsTheRunningCommand) {
  Recorder recorder(false);
  VKLocalTask task;
  task.setDelegate(recorder.delegate);
  Error error;
  std::string output = "unset";
  std::thread run([&] { output = task.execute({"/bin/sleep", "30"}, &error); });
  const pid_t pid = recorder.waitForStart();
  EXPECT_EQ(task.processId(), pid);
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
  struct Case {
    const char* script;
    int status;  // what ended the command
  };
  for (const Case& c : {Case{"echo before; exec sleep 30", SIGTERM},
                        Case{"trap '' TERM; echo before; sleep 30", SIGKILL},
                        Case{"echo before; sleep 30; echo after", SIGTERM}}) {
    SCOPED_TRACE(c.script);
    VKLocalTask task;
    Error error;
    testing::internal::CaptureStdout();
    // The command runs for thirty seconds unless the time-out ends it and all it started.
    auto run = std::async(std::launch::async,
                          [&] { return task.executeWithTimeout(shell(c.script), 0.3, &error); });
    ASSERT_EQ(run.wait_for(std::chrono::seconds(15)), std::future_status::ready)
        << "the command was waited out, not ended";
    EXPECT_EQ(run.get(), "before");
    EXPECT_EQ(error.code(), c.status);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + "\n");
  }
  EXPECT_NE(logText().find("]: " + line + "\n"), std::string::npos) << logText();

  // Within its time a command runs to its end, however much it prints.
  Error none;
  const std::string big =
      VKLocalTask().executeWithTimeout(shell("head -c 1000000 /dev/zero | tr '\\0' x"), 60, &none);
  EXPECT_EQ(big.size(), 1000000u);
  EXPECT_TRUE(none.domain().empty());
}

TEST_F(TaskRunner, InputFromAFileReachesTheChildAndTheFileIsAlwaysDeleted) {
  VKLocalTask task;
  const fs::path input = root_.write("answers", "line1\nline2\n");
  EXPECT_EQ(task.executeWithStdinFromFile({"/bin/cat"}, input), "line1\nline2");
  EXPECT_FALSE(fs::exists(input));

  // Input and output bigger than a pipe holds, at the same time.
  const fs::path big = root_.write("big", std::string(4 << 20, 'q'));
  EXPECT_EQ(task.executeWithStdinFromFile(shell("cat; echo err >&2"), big).size(), 4u << 20);
  EXPECT_FALSE(fs::exists(big));

  const fs::path kept = root_.write("failing", "x");
  Error error;
  EXPECT_EQ(task.executeWithStdinFromFile({"/no/such/tool"}, kept, &error), "");
  EXPECT_EQ(error.domain(), "com.vesksoftware.task.errors");
  EXPECT_FALSE(fs::exists(kept));
  EXPECT_NE(logText().find("]: Error executing command: (\n    /no/such/tool\n)\n"),
            std::string::npos)
      << logText();

  Error status;
  EXPECT_EQ(task.executeWithStdinFromFile({"/usr/bin/wc", "-c"}, root_.path() / "missing", &status),
            "0");
  EXPECT_TRUE(status.domain().empty());
}

TEST_F(TaskRunner, BackgroundChildrenAnswerToSuspendResumeAndTerminate) {
  auto state = [](pid_t pid) {
    const std::string stat = test::readFile("/proc/" + std::to_string(pid) + "/stat");
    return stat.substr(stat.rfind(')') + 2, 1);
  };
  auto waitFor = [](const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!done() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return done();
  };
  VKLocalTask task;
  task.executeInBackground({"/bin/sleep", "30"});
  const pid_t pid = task.processId();
  ASSERT_GT(pid, 0);
  EXPECT_EQ(task.terminationStatus(), 0);
  task.suspend();
  EXPECT_TRUE(waitFor([&] { return state(pid) == "T"; }));
  task.resume();
  EXPECT_TRUE(waitFor([&] { return state(pid) != "T"; }));
  task.terminate();
  EXPECT_TRUE(waitFor([&] { return task.terminationStatus() == SIGTERM; }));

  task.executeInBackground({"/no/such/daemon"});
  EXPECT_NE(
      logText().find(
          "]: Error executing command [(\n    /no/such/daemon\n)] launch path not accessible\n"),
      std::string::npos)
      << logText();
}

TEST_F(TaskRunner, AThousandRunsLeaveNoDescriptorAndNoChildBehind) {
  VKLocalTask task;
  Recorder recorder(true);
  VKLocalTask streaming;
  streaming.setDelegate(recorder.delegate);
  const std::string notExecutable = root_.write("plain", "echo never\n", 0644).string();
  const std::size_t before = openDescriptors();
  for (int i = 0; i < 250; ++i) {
    EXPECT_EQ(task.execute({"/bin/echo", "x"}), "x");
    EXPECT_EQ(streaming.execute({"/bin/echo", "y"}), "y");
    EXPECT_EQ(task.execute({i % 2 == 0 ? "/no/such/program" : notExecutable}), "");
    EXPECT_EQ(task.executeWithTimeout({"/bin/echo", "z"}, 10), "z");
  }
  EXPECT_EQ(openDescriptors(), before);
  int status = 0;
  EXPECT_EQ(::waitpid(-1, &status, WNOHANG), -1) << "a child was left unreaped";
}

TEST_F(TaskRunner, RunningAsAnotherUserKeepsEachWordWhole) {
  if (::geteuid() != 0) GTEST_SKIP() << "su asks for a password unless run by root";
  fs::create_directories(root_.path() / "usr/bin");
  fs::create_symlink("/usr/bin/su", root_.path() / "usr/bin/su");
  VKLocalTask task;
  Error error;
  EXPECT_EQ(task.executeAsUser({"/usr/bin/printf", "%s|", "a b", "$HOME", "c"}, "root", &error),
            "a b|$HOME|c|");
  EXPECT_TRUE(error.domain().empty());
  // A quote is escaped in a way the user's shell does not accept, as the client always did.
  task.executeAsUser({"/bin/echo", "it's"}, "root", &error);
  EXPECT_NE(error.code(), 0);
}

}  // namespace
}  // namespace vesk
