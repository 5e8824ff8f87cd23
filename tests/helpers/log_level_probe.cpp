// Writes two extreme lines to the client log with the level reader the command line
// installs, changing the preferences to "info" between them; the test reads which arrived.

#include "agent/VKCommand.h"
#include "config/VKDefaultsWrapper.h"
#include "foundation/Paths.h"
#include "logging/VKLogging.h"

int main() {
  (void)vesk::VKCommand::verbose();  // the command line's first use installs its hooks
  vesk::VKLogging::logExtreme("first extreme line");
  vesk::VKDefaultsWrapper().writeStringValue(
      "info", "global_log_level", vesk::fsPath("/Library/Preferences/com.vesksoftware.vesk.plist"));
  vesk::VKLogging::logExtreme("second extreme line");
  return 0;
}
