#include "task/VESKTask.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

#include "foundation/Exception.h"
#include "foundation/Paths.h"
#include "foundation/PropertyList.h"
#include "foundation/StringHelpers.h"
#include "task/OutputPump.h"

namespace vesk {
namespace {

// What callers get of a child's output: UTF-8 text without white space at either end.
std::string outputText(const std::string& raw) {
  return isValidUtf8(raw) ? strip(raw) : strip(makeValidUtf8(raw));
}

std::string commandDescription(const Command& command) {
  Array words;
  for (const std::string& word : command) words.emplace_back(word);
  return Value(std::move(words)).description();
}

std::string reasonOf(const std::exception& failure) {
  if (const auto* named = dynamic_cast<const Exception*>(&failure)) return named->reason();
  return failure.what();
}

// How many bytes at the end of `bytes` start a UTF-8 sequence that the next read may
// complete; they wait for it rather than be decoded half.
std::size_t incompleteTail(const std::string& bytes) {
  const std::size_t size = bytes.size();
  for (std::size_t back = 1; back <= 3 && back <= size; ++back) {
    const auto byte = static_cast<unsigned char>(bytes[size - back]);
    if ((byte & 0xC0) == 0x80) continue;  // a continuation byte: look further back
    const std::size_t needed = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    return needed > back ? back : 0;
  }
  return 0;
}

}  // namespace

std::string argumentString(const Command& command) {
  std::string line;
  for (const std::string& word : command)
    line += fmt::format("'{}' ", replaceAll(word, "'", "\\'"));
  return trim(line);
}

// One of the pipes a streaming run reads, with the start of a character that a read split.
struct VESKTask::Stream {
  std::string pending;
};

ChildProcessPlan VESKTask::planFor(const Command& command, StdioMode input, StdioMode output,
                                   StdioMode error) {
  if (command.empty()) throw Exception("NSRangeException", "The command is empty.");
  ChildProcessPlan plan;
  plan.input = input;
  plan.output = output;
  plan.error = error;
  plan.path = command.front();
  plan.arguments.assign(command.begin() + 1, command.end());
  childEnvironment_.reset();
  setupEnvironment();
  plan.environment = childEnvironment_;
  return plan;
}

std::shared_ptr<ChildProcess> VESKTask::launch(const ChildProcessPlan& plan) {
  std::shared_ptr<ChildProcess> child = ChildProcess::launch(plan);
  std::lock_guard<std::mutex> hold(taskLock_);
  task_ = child;
  processId_ = child->processIdentifier();
  return child;
}

std::shared_ptr<ChildProcess> VESKTask::currentChild() {
  std::lock_guard<std::mutex> hold(taskLock_);
  return task_;
}

void VESKTask::finishRun() {
  resultsData_.clear();
  resultsData_.shrink_to_fit();
  std::lock_guard<std::mutex> hold(taskLock_);
  task_.reset();
}

void VESKTask::waitForStatus(ChildProcess& child, Error* error) {
  const int status = child.waitUntilExit();
  if (status != 0) setError(error, Error(VESKTaskErrorDomain, status));
}

void VESKTask::reportFailure(const Command& command, ChildProcess* child, Error* error) {
  logError(fmt::format("Error executing command: {}", commandDescription(command)), true);
  setError(error, Error(VESKTaskErrorDomain, child != nullptr ? child->terminationStatus() : 0));
}

std::string VESKTask::executeAndAnswerPromptWith(const Command& command,
                                                 const std::optional<std::string>& answer,
                                                 Error* error, bool ignoreStderr,
                                                 bool writeToConsole) {
  return outputText(run(command, answer, error, ignoreStderr, writeToConsole));
}

std::string VESKTask::run(const Command& command, const std::optional<std::string>& answer,
                          Error* error, bool ignoreStderr, bool writeToConsole) {
  writesToConsole_ = writeToConsole;
  std::shared_ptr<ChildProcess> child;
  std::string output;
  try {
    const ChildProcessPlan plan =
        planFor(command, StdioMode::kPipe, StdioMode::kPipe,
                ignoreStderr ? StdioMode::kPipe : StdioMode::kSameAsStdout);
    const std::shared_ptr<VESKTaskDelegate> observer = delegate();
    const bool streaming = writeToConsole || (observer && observer->taskReadString);

    child = launch(plan);
    std::optional<OutputPump> pump;
    if (streaming) {
      std::vector<int> fds{child->releaseOutput()};
      if (const int errorFd = child->releaseError(); errorFd >= 0) fds.push_back(errorFd);
      pump.emplace(std::move(fds), child);
    }
    if (observer && observer->taskStartedProcess) observer->taskStartedProcess(*this);

    if (streaming) {
      if (answer) {
        child->writeInput(*answer);
        child->writeInput("\n");
        child->closeInput();
      }
      // With error text mixed in, one pipe stands for both streams.
      Stream streams[2];
      resultsData_.clear();
      while (std::optional<OutputPump::Chunk> chunk = pump->next())
        outputNotify(streams[chunk->stream], chunk->bytes);
      output = std::move(resultsData_);
    } else {
      output = child->readOutputToEnd(answer ? std::optional<std::string>(*answer + "\n")
                                             : std::nullopt);
    }
    waitForStatus(*child, error);
  } catch (const std::exception&) {
    reportFailure(command, child.get(), error);
    output.clear();
  }
  finishRun();
  return output;
}

void VESKTask::outputNotify(Stream& stream, const std::string& bytes) {
  std::string text;
  if (bytes.empty()) {
    // The end of the pipe: a character left unfinished is shown as a replacement character.
    text = makeValidUtf8(stream.pending);
    stream.pending.clear();
  } else {
    stream.pending += bytes;
    const std::size_t keep = incompleteTail(stream.pending);
    text = makeValidUtf8(std::string_view(stream.pending).substr(0, stream.pending.size() - keep));
    stream.pending.erase(0, stream.pending.size() - keep);
  }
  if (text.empty()) return;
  resultsData_ += text;
  if (writesToConsole_) writeToConsole(text);
  if (const std::shared_ptr<VESKTaskDelegate> observer = delegate();
      observer && observer->taskReadString)
    observer->taskReadString(*this, text);
}

std::string VESKTask::executeAsUser(const Command& command, const std::string& user, Error* error) {
  return execute({fsPath("/usr/bin/su"), "-l", user, "-c", argumentString(command)}, error);
}

std::string VESKTask::executeWithTimeout(const Command& command, double seconds, Error* error) {
  using Clock = std::chrono::steady_clock;
  std::shared_ptr<ChildProcess> child;
  std::string output;
  try {
    ChildProcessPlan plan =
        planFor(command, StdioMode::kInherit, StdioMode::kPipe, StdioMode::kInherit);
    // A group of its own: a time-out ends what the command started too, not only the command.
    plan.newProcessGroup = true;
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(std::max(seconds, 0.0)));
    child = launch(plan);
    // The output is read while waiting, so a child that prints more than a pipe holds is
    // not stalled into the deadline.
    bool outputOpen = true;
    while (!child->waitForExit(0)) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) {
        endProcessGroup(*child);
        throw Exception("Command Timeout",
                        "The timeout was reached before the command finished executing.");
      }
      const int step = static_cast<int>(std::min<long long>(left, 100));
      if (outputOpen) {
        outputOpen = child->readOutputFor(output, step);
      } else {
        child->waitForExit(step);
      }
    }
  } catch (const std::exception& failure) {
    logError(fmt::format("Exception Encountered: {}", reasonOf(failure)), false);
  }
  if (child) {
    // What it wrote before it ended. A descendant that still holds the pipe is not waited for.
    child->readAvailableOutput(output);
    waitForStatus(*child, error);
  } else {
    setError(error, Error(VESKTaskErrorDomain, 0));  // it never started
  }
  finishRun();
  return outputText(output);
}

void VESKTask::endProcessGroup(ChildProcess& child) {
  // Politely first; whatever is left after the grace, the command itself included, is killed.
  child.signalGroup(SIGTERM);
  child.waitForExit(static_cast<int>(kTimeoutGraceSeconds * 1000));
  child.signalGroup(SIGKILL);
}

std::string VESKTask::executeWithStdinFromFile(const Command& command, const std::string& path,
                                               Error* error) {
  // The file usually holds an answer meant for this child alone: it goes on every way out.
  struct RemoveFile {
    const std::string& path;
    ~RemoveFile() { ::unlink(path.c_str()); }
  } removeFile{path};

  std::shared_ptr<ChildProcess> child;
  std::string output;
  try {
    child = launch(planFor(command, StdioMode::kPipe, StdioMode::kPipe, StdioMode::kPipe));
    std::ifstream file(path, std::ios::binary);
    const std::string input((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    output = child->readOutputToEnd(input);
    waitForStatus(*child, error);
  } catch (const std::exception&) {
    reportFailure(command, child.get(), error);
    output.clear();
  }
  finishRun();
  return outputText(output);
}

void VESKTask::executeInBackground(const Command& command) {
  try {
    std::shared_ptr<ChildProcess> child = launch(planFor(command));
    // Reaped as soon as it ends, so it never lingers as a zombie; the status stays readable.
    std::thread([child] { child->waitUntilExit(); }).detach();
  } catch (const std::exception& failure) {
    logError(fmt::format("Error executing command [{}] {}", commandDescription(command),
                         reasonOf(failure)),
             true);
  }
}

Value VESKTask::executeReturningPlist(const Command& command, Error* error) {
  // A binary property list is taken byte for byte: decoding it as text would spoil it.
  const std::string output = run(command, std::nullopt, error, true, false);
  if (isBinaryPropertyList(output)) return propertyListFromBytes(output);
  return propertyListFromBytes(outputText(output));
}

void VESKTask::terminate() {
  if (std::shared_ptr<ChildProcess> child = currentChild()) child->terminate();
}

void VESKTask::suspend() {
  if (std::shared_ptr<ChildProcess> child = currentChild()) child->suspend();
}

void VESKTask::resume() {
  if (std::shared_ptr<ChildProcess> child = currentChild()) child->resume();
}

int VESKTask::terminationStatus() {
  std::shared_ptr<ChildProcess> child = currentChild();
  return child ? child->terminationStatus() : 0;
}

void VESKTask::writeToConsole(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void VESKTask::logError(const std::string&, bool) {}

}  // namespace vesk
