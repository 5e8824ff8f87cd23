#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vesk {
class ChildProcess;
}

namespace vesk::test {

struct ProgramResult {
  int status = -1;
  std::string output;  // standard output, and standard error when merged
};

// Runs `path` with `arguments` and the environment `environment` ("NAME=value" entries; the
// test's own environment when empty is not wanted, pass it explicitly), and waits for it.
ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment, bool mergeStderr = false);

// A program with standard error on the pipe of its output, and its input closed unless the
// test is to write to it.
std::unique_ptr<ChildProcess> startProgram(const std::string& path,
                                           const std::vector<std::string>& arguments,
                                           bool keepInput = false);
// `path` with `arguments`, run as nobody through setpriv.
std::unique_ptr<ChildProcess> startAsNobody(const std::string& path,
                                            std::vector<std::string> arguments,
                                            bool keepInput = false);
// Why a test cannot run `path` as nobody (not root, or nobody cannot reach it); "" when it can.
std::string whyNobodyCannotRun(const std::string& path);
// Reads what `child` prints until `output` holds `text`; false when it ended or ten seconds
// passed first. This thread's loop does not run meanwhile.
bool waitForOutput(ChildProcess& child, std::string& output, const std::string& text);

// This process's environment without the named variables.
std::vector<std::string> environmentWithout(const std::vector<std::string>& names);

// The resident memory of process `pid` in kilobytes (VmRSS); -1 when it cannot be read.
long residentKilobytes(int pid);

// A fresh folder under the system's temporary folder, removed with its contents at the end.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // Writes a file below the folder, creating its parents; `mode` applies to it.
  std::filesystem::path write(const std::string& relative, const std::string& content,
                              unsigned mode = 0644) const;

 private:
  std::filesystem::path path_;
};

std::string readFile(const std::filesystem::path& path);

// Runs this thread's loop in short turns until `condition` holds, checking between turns, for
// conditions that no event of this process announces (a name taken on the bus); false when
// `seconds` passed first.
bool pollUntil(const std::function<bool()>& condition, double seconds = 10);

// Prepares `root` as a client root with scripts/make-sandbox (folders, tools, vesk-defaults)
// and points this process's VESK_ROOT at it. Whatever a test sets VESK_ROOT to, the next test
// starts with the value the program started with.
void useSandbox(const std::filesystem::path& root);

}  // namespace vesk::test
