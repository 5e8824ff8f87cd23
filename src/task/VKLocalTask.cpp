#include "task/VKLocalTask.h"

#include <fmt/format.h>

#include <string_view>
#include <vector>

#include "foundation/Paths.h"
#include "logging/VKLogging.h"
#include "platform/ProcessSecurity.h"

extern char** environ;

namespace vesk {
namespace {

constexpr const char* kPathVariable = "PATH";

// What a child may take over from this process's environment. In a set-user-id run the
// environment is the starter's and the children run as root, so they get a fixed search path
// and only the terminal and locale settings: no BASH_ENV, IFS, LD_ or interpreter paths, and
// no locale given as a file path.
std::vector<std::string> inheritedEnvironment() {
  std::vector<std::string> environment;
  const bool untrusted = isSetUserIdExecution();
  if (untrusted)
    environment.push_back(std::string(kPathVariable) + "=/usr/bin:/bin:/usr/sbin:/sbin");
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view variable(*entry);
    if (untrusted) {
      const std::string_view name = variable.substr(0, variable.find('='));
      const bool locale = name == "LANG" || name.starts_with("LC_");
      if (!(name == "TERM" || (locale && variable.find('/') == std::string_view::npos))) continue;
    }
    environment.emplace_back(variable);
  }
  return environment;
}

}  // namespace

void VKLocalTask::writeToConsole(const std::string& text) {
  VKLogging::synchronizedPrintln("{}", text);
}

void VKLocalTask::logError(const std::string& message, bool verbose) {
  if (verbose) {
    VKLogging::logEventAndPrintVerbose("{}", message);
  } else {
    VKLogging::logEventAndPrint("{}", message);
  }
}

void VKLocalTask::setupEnvironment() {
  const std::string toolFolder = fsPath("/usr/local/vesk/bin");
  const std::string pathPrefix = std::string(kPathVariable) + "=";
  std::vector<std::string> environment;
  bool sawPath = false;
  for (std::string& variable : inheritedEnvironment()) {
    if (variable.rfind(pathPrefix, 0) == 0) {
      // An empty PATH gains no leading ":", which a shell would read as the current folder.
      variable += variable.size() > pathPrefix.size() ? fmt::format(":{}", toolFolder) : toolFolder;
      sawPath = true;
    }
    environment.push_back(std::move(variable));
  }
  if (!sawPath) environment.push_back(pathPrefix + toolFolder);
  setChildEnvironment(std::move(environment));
}

}  // namespace vesk

namespace vesk {

void compressWithGzip(const std::string& path) {
  VKLocalTask().execute({fsPath("/usr/bin/gzip"), path});
}

}  // namespace vesk
