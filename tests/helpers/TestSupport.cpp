#include "helpers/TestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "foundation/RunLoop.h"
#include "platform/ChildProcess.h"

extern char** environ;

namespace vesk::test {

ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment, bool mergeStderr) {
  ChildProcessPlan plan;
  plan.path = path;
  plan.arguments = arguments;
  plan.environment = environment;
  plan.input = StdioMode::kPipe;
  plan.output = StdioMode::kPipe;
  plan.error = mergeStderr ? StdioMode::kSameAsStdout : StdioMode::kInherit;
  auto child = ChildProcess::launch(plan);
  child->closeInput();
  ProgramResult result;
  result.output = child->readOutputToEnd();
  result.status = child->waitUntilExit();
  return result;
}

std::unique_ptr<ChildProcess> startProgram(const std::string& path,
                                           const std::vector<std::string>& arguments,
                                           bool keepInput) {
  auto child = ChildProcess::launch({path, arguments, environmentWithout({}), StdioMode::kPipe,
                                     StdioMode::kPipe, StdioMode::kSameAsStdout});
  if (!keepInput) child->closeInput();
  return child;
}

std::unique_ptr<ChildProcess> startAsNobody(const std::string& path,
                                            std::vector<std::string> arguments, bool keepInput) {
  arguments.insert(arguments.begin(),
                   {"--reuid=65534", "--regid=65534", "--clear-groups", "--", path});
  return startProgram("/usr/bin/setpriv", arguments, keepInput);
}

std::string whyNobodyCannotRun(const std::string& path) {
  if (::geteuid() != 0) return "running a program as another user needs root";
  const bool reachable = startAsNobody("/usr/bin/test", {"-x", path})->waitUntilExit() == 0;
  return reachable ? "" : "nobody cannot reach " + path;
}

bool waitForOutput(ChildProcess& child, std::string& output, const std::string& text) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (output.find(text) == std::string::npos)
    if (std::chrono::steady_clock::now() > deadline || !child.readOutputFor(output, 100))
      return false;
  return true;
}

std::vector<std::string> environmentWithout(const std::vector<std::string>& names) {
  std::vector<std::string> out;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    bool drop = false;
    for (const std::string& name : names) drop = drop || entry.rfind(name + "=", 0) == 0;
    if (!drop) out.push_back(entry);
  }
  return out;
}

TemporaryFolder::TemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vesk-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TemporaryFolder::write(const std::string& relative,
                                             const std::string& content, unsigned mode) const {
  const std::filesystem::path file = path_ / relative;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
  ::chmod(file.c_str(), mode);
  return file;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

bool pollUntil(const std::function<bool()>& condition, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    RunLoop::current().runUntil(0.005);
  }
  return true;
}

namespace {

// Puts VESK_ROOT back after each test, so that tests run in one process do not see the root
// an earlier one chose (CTest runs each in a process of its own; a developer may not).
class RestoreRoot : public ::testing::EmptyTestEventListener {
 public:
  RestoreRoot() {
    if (const char* root = ::getenv("VESK_ROOT")) saved_ = root;
  }
  void OnTestEnd(const ::testing::TestInfo&) override {
    if (saved_) {
      ::setenv("VESK_ROOT", saved_->c_str(), 1);
    } else {
      ::unsetenv("VESK_ROOT");
    }
  }

 private:
  std::optional<std::string> saved_;
};

const bool restoreRootInstalled = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new RestoreRoot);
  return true;
}();

}  // namespace

long residentKilobytes(int pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  return -1;
}

void useSandbox(const std::filesystem::path& root) {
  std::vector<std::string> environment = environmentWithout({"VESK_ROOT"});
  environment.push_back(std::string("VESK_DEFAULTS_TOOL=") + VESK_DEFAULTS_TOOL);
  const ProgramResult made = runProgram(VESK_MAKE_SANDBOX, {root.string()}, environment, true);
  if (made.status != 0) throw std::runtime_error("make-sandbox failed: " + made.output);
  ::setenv("VESK_ROOT", root.c_str(), 1);
}

}  // namespace vesk::test
