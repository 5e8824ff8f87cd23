#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Value.h"
#include "task/VKLocalTask.h"

namespace vesk {

// Parsed options: flag names without their dashes, mapped to their values ("" for none).
using Options = std::map<std::string, std::string, std::less<>>;

// The base of every verb. A command is built from the full argument list (argument 0
// included), parses it into options, and then follows one life cycle:
// preInitialize, onInitialize, then validateAndExecute -> validateOptions -> execute.
//
// A handful of flags are process-wide (verbose, debug, the server-traffic display, the
// override server URL, the global target, the random delay): the first command built in the
// process decides each of them and later commands cannot change it. The entry point parses
// the arguments twice (a throw-away base command, then the verb), and this is what keeps the
// second parse from undoing the first.
//
// Built and executed on one thread; the process-wide accessors may be read from any thread.
class VKCommand {
 public:
  // Builds a command of class T over `arguments` and runs its set-up (the constructor alone
  // cannot, since the set-up calls the subclass's hooks).
  template <typename T>
  static std::unique_ptr<T> create(std::vector<std::string> arguments) {
    std::unique_ptr<T> command(new T());
    command->initWithArguments(std::move(arguments));
    return command;
  }

  virtual ~VKCommand() = default;
  VKCommand(const VKCommand&) = delete;
  VKCommand& operator=(const VKCommand&) = delete;

  // The root check when the class requires root, then validateOptions, then execute.
  int validateAndExecute();

  // Class-level descriptors, constant for each verb class.
  virtual std::string className() const { return "VKCommand"; }
  virtual std::string helpText() const { return ""; }
  virtual std::string shortHelpText() const { return ""; }
  virtual std::string hiddenHelp() const { return ""; }
  virtual bool hiddenVerb() const { return false; }
  virtual bool onlyHelp() const { return false; }
  virtual bool rootRequired() const { return true; }
  virtual std::vector<std::string> optionsWithRequiredValues() const { return {}; }

  // Process-wide state.
  static bool verbose();
  // Clears the process-wide debug flag and then answers it, so it always answers NO and
  // debug output never appears through it. Deliberate: debugPrintln depends on it.
  static bool debug();
  static std::optional<std::string> overrideKsvUrl();
  static bool globalDisplayKsvTraffic();
  static std::string globalTarget();

  // Records verbose only the first time any command decides it.
  void setVerbose(bool verbose);
  // Can only switch debugging on.
  void setDebug(bool debug);
  // Records the URL only while no override URL is set.
  void setOverrideKsvUrl(std::optional<std::string> url);
  // Sets this command's own request every time, the process-wide value only the first time.
  void setDisplayKsvTraffic(bool display);
  // The process-wide value or this command's own request.
  bool displayKsvTraffic() const;

  const std::string& verb() const { return verb_; }
  void setVerb(std::string verb) { verb_ = std::move(verb); }
  const std::string& target() const { return target_; }
  void setTarget(std::string target) { target_ = std::move(target); }
  const Options& options() const { return options_; }
  const std::vector<std::string>& argumentArray() const { return argumentArray_; }
  VKLocalTask& localTask() { return *localTask_; }

  // One line: the class, the target and the options.
  std::string description() const;

  // Option helpers.
  // A flag starts with "-" once white space is stripped, and is not a number ("-5" is a value).
  static bool isOptionFlag(std::string_view argument);
  // "--target" and "-target" both give "target".
  static std::string cleanOptionFlag(std::string_view flag);
  bool doesArgRequireValue(std::string_view argument) const;
  static void addOption(const std::string& value, std::string_view flag, Options& options);

 protected:
  VKCommand() = default;

  // Steps of the set-up, callable by subclasses.
  void initWithArguments(std::vector<std::string> arguments);
  void parseArgumentsIntoOptions(const std::vector<std::string>& arguments);
  void parseOptions();
  void parseOverrideKSV();
  void parseTargetOption();
  // Answers the seconds slept, 0 when no delay was taken.
  unsigned parseSleepRandomSecondsOption();
  virtual void sleepSeconds(const Value& seconds);

  // Hooks; no-ops here.
  virtual void preInitialize() {}
  virtual void onInitialize() {}
  virtual void validateOptions() {}
  // Every verb overrides it; the base raises "Unsupported Operation".
  virtual int execute();

  [[noreturn]] void unsupportedOperationCalledForMethod(std::string_view method) const;

 private:
  const std::string* option(std::string_view key) const;

  std::string verb_;
  std::string target_;
  Options options_;
  std::vector<std::string> argumentArray_;
  std::unique_ptr<VKLocalTask> localTask_;
  bool displayKsvTraffic_ = false;
};

}  // namespace vesk
