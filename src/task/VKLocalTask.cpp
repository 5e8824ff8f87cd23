#include "task/VKLocalTask.h"

#include <fmt/format.h>

#include <vector>

#include "foundation/Paths.h"
#include "logging/VKLogging.h"
#include "platform/ProcessSecurity.h"

namespace vesk {
namespace {

constexpr const char* kPathVariable = "PATH";

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
  for (std::string& variable : inheritableEnvironment()) {
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
