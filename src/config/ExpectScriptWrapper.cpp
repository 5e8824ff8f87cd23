#include "config/ExpectScriptWrapper.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>

#include "config/ClientFolders.h"
#include "foundation/FileManager.h"
#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"

namespace vesk {
namespace {

// clang-format off
constexpr const char* expectTemplate = "#!%@\nset timeout 60\nspawn -noecho %@\n%@\nexpect {\n  timeout { exit 99 }\n  eof\n}\ncatch wait result\nexit [lindex $result 3]";
// clang-format on
constexpr const char* kInterpreter = "/usr/bin/expect";
constexpr const char* kDefaultPrompt = "password";
constexpr mode_t kScriptPermissions = 0700;

std::string randomUUIDString() {
  gchar* uuid = g_uuid_string_random();
  std::string text(uuid);
  g_free(uuid);
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// Writes `script` to a new file at `path` that nothing stood at before, with the script's
// permissions from the start (whatever the umask says), and never through a link.
std::optional<Error> createScriptFile(const std::string& path, const std::string& script) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        kScriptPermissions);
  if (fd < 0) return posixError(errno);
  std::optional<Error> failure;
  if (::fchmod(fd, kScriptPermissions) != 0 || !writeAll(fd, script)) failure = posixError(errno);
  ::close(fd);
  return failure;
}

// Removes the script when it goes out of scope, unless removed already: an exception on the
// way must not leave the answers on disk.
class ScriptFile {
 public:
  explicit ScriptFile(std::string path) : path_(std::move(path)) {}
  ~ScriptFile() {
    if (!removed_) ::unlink(path_.c_str());
  }
  ScriptFile(const ScriptFile&) = delete;
  ScriptFile& operator=(const ScriptFile&) = delete;

  std::optional<Error> remove() {
    removed_ = true;
    if (::unlink(path_.c_str()) != 0) return posixError(errno);
    return std::nullopt;
  }

 private:
  std::string path_;
  bool removed_ = false;
};

}  // namespace

std::optional<std::string> ExpectScriptWrapper::executeAndAnswerPromptWith(
    const std::vector<std::string>& command, const Answer& answer, Error* error) {
  return executeWithPrompt(command, std::nullopt, answer, error);
}

std::optional<std::string> ExpectScriptWrapper::executeWithPrompt(
    const std::vector<std::string>& command, const std::optional<std::string>& prompt,
    const Answer& andAnswer, Error* error) {
  std::vector<std::string> prompts;
  if (prompt) prompts.push_back(*prompt);
  std::vector<Answer> answers;
  if (andAnswer) answers.push_back(andAnswer);
  return executeWithPrompts(command, prompts, answers, error);
}

std::optional<std::string> ExpectScriptWrapper::executeWithPrompts(
    const std::vector<std::string>& command, const std::vector<std::string>& prompts,
    const std::vector<Answer>& andAnswers, Error* error) {
  const std::string path = fmt::format("{}/{}", veskTmpDir(), randomUUIDString());
  const std::string script = createScriptFromArguments(command, prompts, andAnswers);
  // Whatever could not be created here is never run: it would be someone else's file.
  if (std::optional<Error> failure = createScriptFile(path, script))
    return handleScriptRemovalError(std::nullopt, failure, error);
  ScriptFile file(path);

  Error executionError;
  const std::string output = localTask().execute({fsPath(kInterpreter), path}, &executionError);
  std::optional<Error> failedExecution;
  if (!(executionError == Error())) failedExecution = executionError;
  const std::optional<Error> failedRemoval = file.remove();
  if (failedRemoval || failedExecution)
    return handleScriptRemovalError(failedRemoval, failedExecution, error);
  return output;
}

std::string ExpectScriptWrapper::createScriptFromArguments(
    const std::vector<std::string>& arguments, std::vector<std::string> withPrompts,
    const std::vector<Answer>& andAnswers) const {
  std::string body;
  if (!withPrompts.empty() || !andAnswers.empty()) {
    if (withPrompts.empty()) withPrompts.push_back(kDefaultPrompt);
    appendToStringPromptsToMatchingAnswers(body, withPrompts, andAnswers);
    appendToStringAnyExtraAnswersForPrompts(body, andAnswers, withPrompts);
  }
  return stringWithObjects(
      expectTemplate, {fsPath(kInterpreter), createSpawnCommandFromArguments(arguments), body});
}

std::string ExpectScriptWrapper::createSpawnCommandFromArguments(
    const std::vector<std::string>& arguments) {
  if (arguments.empty()) return "";
  std::string command = arguments[0];
  for (std::size_t i = 1; i < arguments.size(); ++i)
    command += fmt::format(" \"{}\"", escapeCommonCharacters(arguments[i]));
  return command;
}

std::string ExpectScriptWrapper::createExpectFromPrompt(const std::string& prompt) {
  return stringWithObjects("expect {\n  -nocase\n  \"%@\"\n}", {trim(lowercaseString(prompt))});
}

std::string ExpectScriptWrapper::createAnswer(const Answer& answer) {
  if (!answer) return "send -- \\r";
  return fmt::format("send -- \"{}\"\nsend -- \\r", escapeCommonCharacters(*answer));
}

std::string ExpectScriptWrapper::createExpectationWithPrompt(const std::string& prompt,
                                                             const Answer& andAnswer) {
  return createExpectFromPrompt(prompt) + "\n" + createAnswer(andAnswer);
}

std::string ExpectScriptWrapper::escapeCommonCharacters(const std::string& text) {
  std::string escaped = replaceAll(text, "\\", "\\\\");
  for (const char* special : {"$", "!", "%", "^", "{", "}", "[", "]", "\""})
    escaped = replaceAll(escaped, special, fmt::format("\\{}", special));
  return escaped;
}

void ExpectScriptWrapper::appendToStringPromptsToMatchingAnswers(
    std::string& string, const std::vector<std::string>& prompts,
    const std::vector<Answer>& toMatchingAnswers) {
  for (std::size_t i = 0; i < prompts.size(); ++i) {
    // Prompts beyond the answers get the last answer again; none at all, a bare return.
    Answer answer;
    if (i < toMatchingAnswers.size()) {
      answer = toMatchingAnswers[i];
    } else if (!toMatchingAnswers.empty()) {
      answer = toMatchingAnswers.back();
    }
    string += createExpectationWithPrompt(prompts[i], answer);
    string += "\n";
  }
}

void ExpectScriptWrapper::appendToStringAnyExtraAnswersForPrompts(
    std::string& string, const std::vector<Answer>& anyExtraAnswers,
    const std::vector<std::string>& forPrompts) {
  for (std::size_t i = forPrompts.size(); i < anyExtraAnswers.size(); ++i) {
    string += createAnswer(anyExtraAnswers[i]);
    string += "\n";
  }
}

std::optional<std::string> ExpectScriptWrapper::handleScriptRemovalError(
    const std::optional<Error>& removalError, const std::optional<Error>& andExecutionError,
    Error* usingError) {
  if (removalError) {
    setError(usingError,
             Error(ExpectScriptErrorDomain, -2000,
                   Dictionary{{kLocalizedDescriptionKey, removalError->localizedDescription()}}));
  } else if (andExecutionError) {
    setError(
        usingError,
        Error(ExpectScriptErrorDomain, -1000,
              Dictionary{{kLocalizedDescriptionKey, andExecutionError->localizedDescription()}}));
  }
  return std::nullopt;
}

}  // namespace vesk
