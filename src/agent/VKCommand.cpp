#include "agent/VKCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <random>

#include "agent/VKEnvironmentInfo.h"
#include "config/VKLogLevelSettings.h"
#include "foundation/Exception.h"
#include "foundation/StringHelpers.h"
#include "logging/VKLogging.h"
#include "task/VKLocalTask.h"

namespace vesk {
namespace {

// The process-wide state of the command line. Set up once, when the class is first used.
struct Globals {
  Globals() {
    VKLogging::setCommandSwitches(&VKCommand::verbose, &VKCommand::debug);
    VKLogging::setLogFileSources(&VKEnvironmentInfo::getComputerName, &compressWithGzip);
    VKLogging::setLogLevelReader([] { return VKLogLevelSettings().readGlobalLogLevel(); });
  }

  std::atomic<bool> verbose{false};
  std::atomic<bool> debug{false};
  std::atomic<bool> displayKsvTraffic{false};

  std::mutex lock;
  bool verboseSet = false;                    // guarded by lock
  bool displayKsvTrafficSet = false;          // guarded by lock
  std::string target;                         // guarded by lock
  std::optional<std::string> overrideKsvUrl;  // guarded by lock
  bool pidShown = false;                      // guarded by lock
  bool randomDelayDone = false;               // guarded by lock
};

Globals& globals() {
  static Globals state;
  return state;
}

}  // namespace

bool VKCommand::verbose() { return globals().verbose.load(); }

bool VKCommand::debug() {
  globals().debug = false;
  return globals().debug.load();
}

std::optional<std::string> VKCommand::overrideKsvUrl() {
  std::lock_guard<std::mutex> hold(globals().lock);
  return globals().overrideKsvUrl;
}

bool VKCommand::globalDisplayKsvTraffic() { return globals().displayKsvTraffic.load(); }

std::string VKCommand::globalTarget() {
  std::lock_guard<std::mutex> hold(globals().lock);
  return globals().target;
}

void VKCommand::setVerbose(bool verbose) {
  std::lock_guard<std::mutex> hold(globals().lock);
  if (globals().verboseSet) return;
  globals().verboseSet = true;
  globals().verbose = verbose;
}

void VKCommand::setDebug(bool debug) {
  if (debug) globals().debug = true;
}

void VKCommand::setOverrideKsvUrl(std::optional<std::string> url) {
  std::lock_guard<std::mutex> hold(globals().lock);
  if (!globals().overrideKsvUrl) globals().overrideKsvUrl = std::move(url);
}

void VKCommand::setDisplayKsvTraffic(bool display) {
  displayKsvTraffic_ = display;
  std::lock_guard<std::mutex> hold(globals().lock);
  if (globals().displayKsvTrafficSet) return;
  globals().displayKsvTrafficSet = true;
  globals().displayKsvTraffic = display;
}

bool VKCommand::displayKsvTraffic() const {
  return globals().displayKsvTraffic.load() || displayKsvTraffic_;
}

void VKCommand::initWithArguments(std::vector<std::string> arguments) {
  localTask_ = std::make_unique<VKLocalTask>();
  argumentArray_ = std::move(arguments);
  parseArgumentsIntoOptions(argumentArray_);
  parseOptions();
  preInitialize();
  onInitialize();
  if (options_.count("showPID") != 0) {
    bool show = false;
    {
      std::lock_guard<std::mutex> hold(globals().lock);
      show = !globals().pidShown;
      globals().pidShown = true;
    }
    if (show) VKLogging::synchronizedPrintln("Running with PID:({})", ::getpid());
  }
}

bool VKCommand::isOptionFlag(std::string_view argument) {
  const std::string trimmed = strip(argument);
  return !trimmed.empty() && trimmed.front() == '-' && !isNumeric(trimmed);
}

std::string VKCommand::cleanOptionFlag(std::string_view flag) {
  const std::string trimmed = strip(flag);
  const std::size_t first = trimmed.find_first_not_of('-');
  if (first == std::string::npos) return "";
  const std::size_t last = trimmed.find_last_not_of('-');
  return trimmed.substr(first, last - first + 1);
}

bool VKCommand::doesArgRequireValue(std::string_view argument) const {
  auto withoutOneDash = [](std::string_view s) {
    if (!s.empty() && s.front() == '-') s.remove_prefix(1);
    return s;
  };
  std::vector<std::string> valueTaking{"target"};
  for (std::string& name : optionsWithRequiredValues()) valueTaking.push_back(std::move(name));
  const std::string_view wanted = withoutOneDash(argument);
  for (const std::string& name : valueTaking)
    if (withoutOneDash(name) == wanted) return true;
  return false;
}

void VKCommand::addOption(const std::string& value, std::string_view flag, Options& options) {
  if (isEmptyAfterTrim(flag)) return;
  options.insert_or_assign(cleanOptionFlag(flag), value);
}

void VKCommand::parseArgumentsIntoOptions(const std::vector<std::string>& arguments) {
  // A flag followed by a plain word takes that word as its value, even a flag that expects
  // none ("-verbose yes"); scripts rely on this. Words that no flag takes (argument 0, the
  // verb) are skipped.
  Options parsed;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (!isOptionFlag(argument)) continue;
    if (i + 1 >= arguments.size()) {
      addOption("", argument, parsed);
    } else if (doesArgRequireValue(argument) || !isOptionFlag(arguments[i + 1])) {
      addOption(arguments[i + 1], argument, parsed);
      ++i;
    } else {
      addOption("", argument, parsed);
    }
  }
  options_ = std::move(parsed);
}

const std::string* VKCommand::option(std::string_view key) const {
  auto it = options_.find(key);
  return it == options_.end() ? nullptr : &it->second;
}

void VKCommand::parseOptions() {
  if (!verbose()) setVerbose(option("verbose") != nullptr);
  setDebug(option("debug") != nullptr);
  setDisplayKsvTraffic(option("displayKSVTraffic") != nullptr);
  parseOverrideKSV();
  parseTargetOption();
  parseSleepRandomSecondsOption();
}

void VKCommand::parseOverrideKSV() {
  const std::string* value = option("overrideKSV");
  if (value == nullptr || isEmptyAfterTrim(*value)) return;
  std::string url = *value;
  if (url.back() != '/') url = fmt::format("{}/", url);
  setOverrideKsvUrl(std::move(url));
}

void VKCommand::parseTargetOption() {
  const std::string* value = option("target");
  const std::string target = value ? trimTrailingCharacters(strip(*value), "/") : "";
  if (target.empty()) {
    target_ = globalTarget();
    return;
  }
  target_ = target;
  std::lock_guard<std::mutex> hold(globals().lock);
  if (globals().target.empty()) globals().target = target;
}

unsigned VKCommand::parseSleepRandomSecondsOption() {
  const std::string* value = option("randomDelaySeconds");
  const std::string text = value ? strip(*value) : "";
  if (text.empty()) return 0;
  {
    std::lock_guard<std::mutex> hold(globals().lock);
    if (globals().randomDelayDone) return 0;
    globals().randomDelayDone = true;
  }
  const std::int32_t most = intValue(text);
  if (most <= 0) return 0;
  std::random_device source;
  const std::uint32_t r = static_cast<std::uint32_t>(source());
  const std::uint32_t delay = r % static_cast<std::uint32_t>(most) + 1;
  VKLogging::synchronizedPrintln("Delaying {:d} seconds...", delay);
  sleepSeconds(Value(delay));
  return delay;
}

void VKCommand::sleepSeconds(const Value& seconds) {
  const std::int32_t n = seconds.intValue();
  if (n > 0) ::sleep(static_cast<unsigned>(n));
}

int VKCommand::validateAndExecute() {
  if (rootRequired()) VKEnvironmentInfo::rootCheck();
  validateOptions();
  return execute();
}

int VKCommand::execute() { unsupportedOperationCalledForMethod("execute"); }

void VKCommand::unsupportedOperationCalledForMethod(std::string_view method) const {
  throw Exception(
      "Unsupported Operation",
      fmt::format(
          "An abstract method on the parent class was unexpectedly called. {} should override the {} method to fix this.",
          className(), method));
}

std::string VKCommand::description() const {
  std::string options;
  for (const auto& [key, value] : options_) {
    if (!options.empty()) options += ", ";
    options += fmt::format("{}=\"{}\"", key, value);
  }
  return fmt::format("<{} target=\"{}\" options={{{}}}>", className(), target_, options);
}

}  // namespace vesk
