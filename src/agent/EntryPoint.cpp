#include "agent/EntryPoint.h"

#include <fmt/format.h>

#include <csignal>
#include <optional>

#include "agent/CanRunOnThisOSXVersionCommand.h"
#include "agent/LaunchAgentCommand.h"
#include "agent/VKCommand.h"
#include "agent/VKEnvironmentInfo.h"
#include "agent/VersionCommand.h"
#include "foundation/Exception.h"
#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"
#include "logging/VKLogging.h"

namespace vesk {
namespace {

int dispatch(int argc, char** argv) {
  VKEnvironmentInfo::supportedOSCheck();

  // Argument 0 that is not UTF-8 names no location at all.
  std::optional<std::string> location;
  if (argc > 0 && isValidUtf8(argv[0])) {
    location = argv[0];
    if (*location == "veskAgent") location = "/usr/local/vesk/bin/veskAgent";
  }
  VKEnvironmentInfo::setApplicationLocation(location);

  // Arguments travel as UTF-8 text; ill-formed bytes become U+FFFD.
  std::vector<std::string> arguments;
  for (int i = 0; i < argc; ++i) arguments.push_back(makeValidUtf8(argv[i]));

  // Parsed once as a plain command so that the process-wide switches are decided before the
  // verb is built; the verb's own parse of the same list cannot change them.
  const auto state = VKCommand::create<VKCommand>(arguments);
  VKLogging::printlnVerbose("Initializing command state with {}", state->description());

  // Only argument 1 names the verb; there is no word for the agent, which is what is left.
  const std::string verb = arguments.size() > 1 ? arguments[1] : "";
  if (verb == "version" || verb == "-version")
    return VKCommand::create<VersionCommand>(arguments)->validateAndExecute();
  if (verb == "canRunOnThisOSXVersion" || verb == "-canRunOnThisOSXVersion")
    return VKCommand::create<CanRunOnThisOSXVersionCommand>(arguments)->validateAndExecute();
  return VKCommand::create<LaunchAgentCommand>(arguments)->validateAndExecute();
}

}  // namespace

int runGuarded(const std::function<int()>& body) {
  try {
    return body();
  } catch (const InvalidSyntaxException& e) {
    VKLogging::synchronizedPrintln(
        "{}",
        fmt::format(
            "\nThere is an error in your syntax.\n\n     Error: {}\n\nType \"vesk help\" for more information.\n",
            e.reason()));
  } catch (const std::exception& e) {
    // Failures of ours carry their reason in what(); so do the standard library's.
    VKLogging::synchronizedPrintln("{}",
                                   fmt::format("\nThere was an error.\n\n     {}\n", e.what()));
  }
  return 1;
}

int veskAgentMain(int argc, char** argv) {
  forgetIgnoredOverrides();
  // A log that reaches the file-size limit someone set must fail its writes, not end the agent:
  // the agent goes on enforcing without its log.
  std::signal(SIGXFSZ, SIG_IGN);
  return runGuarded([&] { return dispatch(argc, argv); });
}

}  // namespace vesk
