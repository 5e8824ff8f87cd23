#include "notifications/BusPeers.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

#include "helpers/TestSupport.h"
#include "notifications/SystemBus.h"

namespace vesk::test {

std::unique_ptr<ChildProcess> startProgram(const std::string& path,
                                           const std::vector<std::string>& arguments) {
  ChildProcessPlan plan;
  plan.path = path;
  plan.arguments = arguments;
  plan.environment = environmentWithout({});
  plan.input = StdioMode::kPipe;
  plan.output = StdioMode::kPipe;
  plan.error = StdioMode::kSameAsStdout;
  auto child = ChildProcess::launch(plan);
  child->closeInput();
  return child;
}

bool waitForOutput(ChildProcess& child, std::string& output, const std::string& text,
                   double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (output.find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline || !child.readOutputFor(output, 100))
      return output.find(text) != std::string::npos;
  }
  return true;
}

std::vector<std::string> asNobody(const std::string& path) {
  return {"--reuid=65534", "--regid=65534", "--clear-groups", "--", path};
}

std::string whyNobodyCannotRun(const std::string& path) {
  if (::geteuid() != 0) return "running a program as another user needs root";
  std::vector<std::string> arguments = asNobody("/usr/bin/test");
  arguments.insert(arguments.end(), {"-x", path});
  auto check = startProgram("/usr/bin/setpriv", arguments);
  check->readOutputToEnd();
  if (check->waitUntilExit() != 0) return "nobody cannot reach " + path;
  return "";
}

ServingDaemon::ServingDaemon() {
  child_ = startProgram(VESK_CENTER_TOOL, {"serve"});
  // Wait for the event: the name gets this child as its owner.
  const bool owned = pollUntil([&] {
    if (!child_->isRunning()) return true;
    const auto owner = nameOwner(systemBus(), kDaemonCenterName);
    if (owner) owner_ = *owner;
    return owner.has_value();
  });
  if (!owned || owner_.empty() || !child_->isRunning())
    throw std::runtime_error("vesk-center serve did not take the name");
  reader_ = std::thread([this, fd = child_->releaseOutput()] {
    char buffer[65536];
    ssize_t n = 0;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
      std::lock_guard<std::mutex> hold(lock_);
      if (n > 0) buffered_.append(buffer, static_cast<std::size_t>(n));
      arrived_.notify_all();
    }
    ::close(fd);
    std::lock_guard<std::mutex> hold(lock_);
    ended_ = true;
    arrived_.notify_all();
  });
}

ServingDaemon::~ServingDaemon() {
  stop();
  if (reader_.joinable()) reader_.join();
}

std::string ServingDaemon::nextLine() {
  std::unique_lock<std::mutex> hold(lock_);
  arrived_.wait_for(hold, std::chrono::seconds(10),
                    [&] { return ended_ || buffered_.find('\n') != std::string::npos; });
  const std::size_t end = buffered_.find('\n');
  if (end == std::string::npos) return "";
  std::string line = buffered_.substr(0, end);
  buffered_.erase(0, end + 1);
  return line;
}

void ServingDaemon::stop() {
  if (!child_ || !child_->isRunning()) return;
  child_->terminate();
  child_->waitUntilExit();
  // Wait for the bus to notice: the name has no owner once the connection is gone.
  pollUntil([] { return !nameOwner(systemBus(), kDaemonCenterName).has_value(); });
}

}  // namespace vesk::test
