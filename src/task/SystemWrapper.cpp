#include "task/SystemWrapper.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/Exception.h"
#include "foundation/FileManager.h"
#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"
#include "logging/VKLogging.h"
#include "platform/ChildProcess.h"

namespace vesk {
namespace {

constexpr const char* kTeeScript =
    "#!/bin/sh\nwhile read LINE\ndo\n\techo ${LINE} >> $1\n\techo ${LINE}\ndone\n";

// What system() returns for the line: the wait status, or 127 << 8 when no shell could be
// run. The lines use the csh-style ">& file" redirection, which the system shell of the
// client's home platform (bash) accepts; Debian's /bin/sh is dash, which rejects it ("Bad fd
// number"). So the line goes, unchanged, to bash. Like system(), this is the system's shell,
// not one of the client's tools, so the path is not under the client's root.
int runThroughShell(const std::string& line) {
  try {
    ChildProcessPlan plan;
    plan.path = "/bin/bash";
    plan.arguments = {"-c", line};
    const std::unique_ptr<ChildProcess> shell = ChildProcess::launch(plan);
    shell->waitUntilExit();
    return shell->waitStatus();
  } catch (const Exception&) {
    return 127 << 8;
  }
}

// The status as the client has always taken it from system(): divided by 256, so a command
// ended by a signal counts as status 0. Kept so deliberately.
int statusOf(int systemResult) { return systemResult / 256; }

// Makes the file at `path` one of this process's own, new and holding `contents`. Whatever
// stood there is removed first without following it, and the file is created exclusively,
// so that no one can have a link waiting at the well-known name to turn a root shell's
// redirection onto another file. False when that could not be made sure.
bool claimFile(const std::string& path, mode_t mode, std::string_view contents = {}) {
  if (fileExistsAtPath(path)) removeItemAtPath(path);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) return false;
  writeAll(fd, contents);  // a short script fails in the shell, as an unwritten one would
  ::close(fd);
  return true;
}

// The capture as text; nullopt when it cannot be read.
std::optional<std::string> readCapture(const std::string& path) {
  std::optional<std::string> bytes = contentsAtPath(path);
  if (bytes) *bytes = makeValidUtf8(*bytes);
  return bytes;
}

// The status a shell reports when its redirection fails and the command is not run.
constexpr int kRedirectionFailed = 1 << 8;

void reportStatus(int status, Error* error) {
  if (status != 0) setError(error, Error(VKErrorDomain, status));
}

}  // namespace

std::optional<std::string> SystemWrapper::executeSystemCommand(const std::string& command,
                                                               Error* error) {
  const std::string capture = fsPath(fmt::format("/private/tmp/{}.tmp", ::getpid()));
  const int result = claimFile(capture, 0600)
                         ? runThroughShell(fmt::format("{} >& {}", command, capture))
                         : kRedirectionFailed;
  reportStatus(statusOf(result), error);
  std::optional<std::string> text = readCapture(capture);
  ::unlink(capture.c_str());
  return text;
}

std::optional<std::string> SystemWrapper::executeSystemCommandInShell(const std::string& command,
                                                                      const std::string& status,
                                                                      Error* error) {
  const std::string script = fsPath(fmt::format("/private/tmp/redirection{}.sh", ::getpid()));
  const bool scriptReady = claimFile(script, 0644, kTeeScript);
  if (scriptReady) addPosixPermission(0100, script);
  const std::string capture = fsPath(fmt::format("/private/tmp/{}.tmp", ::getpid()));
  const bool captureReady = claimFile(capture, 0600);
  const std::string line =
      fmt::format("({};echo \"<exitCode>$?</exitCode>\") 2>&1| {} {}", command, script, capture);

  VKLogging::synchronizedPrintln("<progress status=\"{}\">", status);
  const int result = scriptReady && captureReady ? runThroughShell(line) : kRedirectionFailed;
  reportStatus(statusOf(result), error);

  std::optional<std::string> text = readCapture(capture);
  if (text) {
    const std::optional<std::string> code = findValueBetween(*text, "<exitCode>", "</exitCode>", 0);
    *text =
        replaceAll(*text, fmt::format("<exitCode>{}</exitCode>", code ? intValue(*code) : 0), "");
  }
  ::unlink(script.c_str());
  ::unlink(capture.c_str());
  VKLogging::synchronizedPrintln("</progress>");
  return text;
}

std::string SystemWrapper::commandStringFromArray(const std::vector<std::string>& array) {
  std::string line;
  for (std::size_t i = 0; i < array.size(); ++i) {
    if (i > 0) line += " ";
    line += fixParamForCommandString(array[i]);
  }
  return line;
}

std::string SystemWrapper::fixParamForCommandString(std::string_view param) {
  return fmt::format("'{}'", replaceAll(param, "'", "'\\''"));
}

}  // namespace vesk
