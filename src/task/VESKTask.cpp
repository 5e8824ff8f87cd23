#include "task/VESKTask.h"

#include <fmt/format.h>

#include <cstdio>

#include "foundation/Exception.h"
#include "foundation/PropertyList.h"
#include "foundation/StringHelpers.h"

namespace vesk {
namespace {

// What callers get of a child's output: UTF-8 text without white space at either end.
std::string outputText(const std::string& raw) { return strip(makeValidUtf8(raw)); }

}  // namespace

ChildProcessPlan VESKTask::planFor(const Command& command) {
  if (command.empty()) throw Exception("NSRangeException", "The command is empty.");
  ChildProcessPlan plan;
  plan.path = command.front();
  plan.arguments.assign(command.begin() + 1, command.end());
  childEnvironment_.reset();
  setupEnvironment();
  plan.environment = childEnvironment_;
  return plan;
}

std::string VESKTask::executeAndAnswerPromptWith(const Command& command,
                                                 const std::optional<std::string>& answer,
                                                 Error* error, bool ignoreStderr) {
  return outputText(run(command, answer, error, ignoreStderr));
}

std::string VESKTask::run(const Command& command, const std::optional<std::string>& answer,
                          Error* error, bool ignoreStderr) {
  std::unique_ptr<ChildProcess> child;
  std::string output;
  try {
    ChildProcessPlan plan = planFor(command);
    plan.input = StdioMode::kPipe;
    plan.output = StdioMode::kPipe;
    plan.error = ignoreStderr ? StdioMode::kPipe : StdioMode::kSameAsStdout;
    child = ChildProcess::launch(plan);
    processId_ = child->processIdentifier();
    if (answer) {
      child->writeInput(*answer);
      child->writeInput("\n");
      child->closeInput();
    }
    output = child->readOutputToEnd();
    const int status = child->waitUntilExit();
    if (status != 0) setError(error, Error(VESKTaskErrorDomain, status));
  } catch (const std::exception&) {
    Array description;
    for (const std::string& word : command) description.emplace_back(word);
    logError(
        fmt::format("Error executing command: {}", Value(std::move(description)).description()),
        true);
    setError(error, Error(VESKTaskErrorDomain, child ? child->terminationStatus() : 0));
    output.clear();
  }
  return output;
}

Value VESKTask::executeReturningPlist(const Command& command, Error* error) {
  // A binary property list is taken byte for byte: decoding it as text would spoil it.
  const std::string output = run(command, std::nullopt, error, true);
  if (isBinaryPropertyList(output)) return propertyListFromBytes(output);
  return propertyListFromBytes(outputText(output));
}

void VESKTask::writeToConsole(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void VESKTask::logError(const std::string&, bool) {}

}  // namespace vesk
