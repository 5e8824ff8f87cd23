#pragma once

#include <string>

#include "task/VESKTask.h"

namespace vesk {

// The task runner of the command-line programs: prints through VKLogging, and runs children
// with the client's tool folder last on their search path.
class VKLocalTask : public VESKTask {
 protected:
  void writeToConsole(const std::string& text) override;
  void logError(const std::string& message, bool verbose) override;
  // This process's environment with ":" and the client's tool folder appended to PATH. A
  // set-user-id run passes on only a safe part of it, under a fixed PATH.
  void setupEnvironment() override;
};

// Replaces the file at `path` with PATH.gz, running the system's gzip through a VKLocalTask;
// what gzip says and whether it succeeds is not looked at. The client log's rotation.
void compressWithGzip(const std::string& path);

}  // namespace vesk
