#pragma once

#include <optional>
#include <string>
#include <vector>

#include "foundation/Error.h"
#include "task/BaseSystemCommandWrapper.h"

namespace vesk {

inline constexpr const char* ExpectScriptErrorDomain = "com.vesksoftware.expect.script.errors";

// Runs a command that asks questions on its terminal (a password, typically) by writing a
// script for expect that spawns it, waits for each prompt and types the matching answer, then
// running the script and deleting it. Each wait lasts at most 60 seconds: a prompt that never
// comes is waited out and the script goes on; the wait for the end exits with 99.
//
// The script holds the answers, so it is created afresh under a random name in the client's
// temporary folder, readable by its owner only, and removed on every way out.
class ExpectScriptWrapper : public BaseSystemCommandWrapper {
 public:
  using Answer = std::optional<std::string>;

  // Answers the default prompt, "password".
  std::optional<std::string> executeAndAnswerPromptWith(const std::vector<std::string>& command,
                                                        const Answer& answer,
                                                        Error* error = nullptr);
  std::optional<std::string> executeWithPrompt(const std::vector<std::string>& command,
                                               const std::optional<std::string>& prompt,
                                               const Answer& andAnswer, Error* error = nullptr);
  // The output, or nullopt with `error` set: -1000 when the run failed (a non-zero exit
  // included), -2000 when the script could not be removed afterwards.
  std::optional<std::string> executeWithPrompts(const std::vector<std::string>& command,
                                                const std::vector<std::string>& prompts,
                                                const std::vector<Answer>& andAnswers,
                                                Error* error = nullptr);

  virtual std::string createScriptFromArguments(const std::vector<std::string>& arguments,
                                                std::vector<std::string> withPrompts,
                                                const std::vector<Answer>& andAnswers) const;
  static std::string createSpawnCommandFromArguments(const std::vector<std::string>& arguments);
  static std::string createExpectFromPrompt(const std::string& prompt);
  static std::string createAnswer(const Answer& answer);
  static std::string createExpectationWithPrompt(const std::string& prompt,
                                                 const Answer& andAnswer);
  // Makes text safe inside a double-quoted word of the script.
  static std::string escapeCommonCharacters(const std::string& text);
  static void appendToStringPromptsToMatchingAnswers(std::string& string,
                                                     const std::vector<std::string>& prompts,
                                                     const std::vector<Answer>& toMatchingAnswers);
  static void appendToStringAnyExtraAnswersForPrompts(std::string& string,
                                                      const std::vector<Answer>& anyExtraAnswers,
                                                      const std::vector<std::string>& forPrompts);
  // Sets `usingError` from whichever failed, the removal first; answers nullopt, the result.
  static std::optional<std::string> handleScriptRemovalError(
      const std::optional<Error>& removalError, const std::optional<Error>& andExecutionError,
      Error* usingError);
};

}  // namespace vesk
