// veskAgent: the entry point. Picks the verb from argument 1, drives its command through the
// life cycle and turns its result, or an exception that escapes it, into the exit status.

#include <cstdio>
#include <string>
#include <vector>

#include "agent/CanRunOnThisOSXVersionCommand.h"
#include "agent/VKCommand.h"
#include "agent/VKEnvironmentInfo.h"
#include "agent/VersionCommand.h"
#include "foundation/Exception.h"
#include "foundation/StringHelpers.h"
#include "logging/VKLogging.h"

namespace {

// The agent verb is not part of this build; say so plainly rather than pretend to run it.
int agentUnavailable() {
  std::fputs("veskAgent: the agent itself is not built into this program yet.\n", stderr);
  return 1;
}

int run(int argc, char** argv) {
  using namespace vesk;
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
  // verb is built; the verb's own parse cannot change them.
  const auto state = VKCommand::create<VKCommand>(arguments);
  VKLogging::printlnVerbose("Initializing command state with {}", state->description());

  const std::string verb = arguments.size() > 1 ? arguments[1] : "";
  if (verb == "version" || verb == "-version")
    return VKCommand::create<VersionCommand>(arguments)->validateAndExecute();
  if (verb == "canRunOnThisOSXVersion" || verb == "-canRunOnThisOSXVersion")
    return VKCommand::create<CanRunOnThisOSXVersionCommand>(arguments)->validateAndExecute();
  return agentUnavailable();
}

}  // namespace

int main(int argc, char** argv) {
  using vesk::VKLogging;
  try {
    return run(argc, argv);
  } catch (const vesk::InvalidSyntaxException& e) {
    VKLogging::synchronizedPrintln(
        "{}",
        fmt::format(
            "\nThere is an error in your syntax.\n\n     Error: {}\n\nType \"vesk help\" for more information.\n",
            e.reason()));
  } catch (const std::exception& e) {
    VKLogging::synchronizedPrintln("{}",
                                   fmt::format("\nThere was an error.\n\n     {}\n", e.what()));
  }
  return 1;
}
