// The command line: the input's lines are the arguments, the first the program's path.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/VKCommand.h"

namespace {

// A command that never sleeps for -randomDelaySeconds.
class Command : public vesk::VKCommand {
 protected:
  void sleepSeconds(const vesk::Value&) override {}
  friend class vesk::VKCommand;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> arguments;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    arguments.push_back(text.substr(start, end - start));
  arguments.push_back(text.substr(start));
  const auto command = vesk::VKCommand::create<Command>(arguments);
  (void)command->description();
  return 0;
}
