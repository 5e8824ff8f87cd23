#include "platform/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include "foundation/Exception.h"
#include "platform/ProcessSecurity.h"

namespace vesk {
namespace {

void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

int release(int& fd) {
  const int out = fd;
  fd = -1;
  return out;
}

struct Pipe {
  int read = -1;
  int write = -1;
  ~Pipe() {
    closeFd(read);
    closeFd(write);
  }
  void open() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
      throw Exception("NSInvalidArgumentException",
                      std::string("Failed to create a pipe: ") + std::strerror(errno));
    read = fds[0];
    write = fds[1];
  }
};

// Blocks SIGPIPE on this thread while it writes to a child's input, and swallows one that a
// write to a closed pipe raised, so a child that stopped reading cannot end this process.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipeSet_);
    sigaddset(&pipeSet_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet_, &old_);
  }
  ~SigpipeGuard() {
    if (sawEpipe_) {
      const timespec zero{0, 0};
      sigset_t pending;
      sigpending(&pending);
      if (sigismember(&pending, SIGPIPE) == 1) sigtimedwait(&pipeSet_, nullptr, &zero);
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  void noteEpipe() { sawEpipe_ = true; }

 private:
  sigset_t pipeSet_;
  sigset_t old_;
  bool sawEpipe_ = false;
};

std::vector<char*> cStrings(std::vector<std::string>& strings) {
  std::vector<char*> out;
  out.reserve(strings.size() + 1);
  for (std::string& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

// Reads what is there from fd into `out` (when given); false at end of file or on error.
bool readAvailable(int fd, std::string* out) {
  char buffer[65536];
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      if (out != nullptr) out->append(buffer, static_cast<std::size_t>(n));
      return true;
    }
    if (n < 0 && errno == EINTR) continue;
    return false;
  }
}

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::launch(const ChildProcessPlan& plan) {
  // Checked with the effective ids: those are the ones the exec will be judged by.
  if (::faccessat(AT_FDCWD, plan.path.c_str(), X_OK, AT_EACCESS) != 0)
    throw Exception("NSInvalidArgumentException", "launch path not accessible");

  Pipe in, out, err;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  struct ActionsGuard {
    posix_spawn_file_actions_t* a;
    ~ActionsGuard() { posix_spawn_file_actions_destroy(a); }
  } actionsGuard{&actions};

  if (plan.input == StdioMode::kPipe) {
    in.open();
    posix_spawn_file_actions_adddup2(&actions, in.read, STDIN_FILENO);
  }
  if (plan.output == StdioMode::kPipe) {
    out.open();
    posix_spawn_file_actions_adddup2(&actions, out.write, STDOUT_FILENO);
  }
  if (plan.error == StdioMode::kPipe) {
    err.open();
    posix_spawn_file_actions_adddup2(&actions, err.write, STDERR_FILENO);
  } else if (plan.error == StdioMode::kSameAsStdout && plan.output == StdioMode::kPipe) {
    posix_spawn_file_actions_adddup2(&actions, out.write, STDERR_FILENO);
  }

  // The child starts with default signal dispositions and nothing blocked, whatever this
  // process has set for itself.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (plan.newProcessGroup) {
    posix_spawnattr_setpgroup(&attr, 0);
    flags |= POSIX_SPAWN_SETPGROUP;
  }
  posix_spawnattr_setflags(&attr, flags);

  std::vector<std::string> argvStrings;
  argvStrings.reserve(plan.arguments.size() + 1);
  argvStrings.push_back(plan.path);
  argvStrings.insert(argvStrings.end(), plan.arguments.begin(), plan.arguments.end());
  std::vector<char*> argv = cStrings(argvStrings);
  std::vector<std::string> envStrings =
      plan.environment ? *plan.environment : inheritableEnvironment();
  std::vector<char*> envp = cStrings(envStrings);

  // glibc reaps a child whose exec failed before posix_spawn returns, so a failure here
  // leaves no zombie; the pipes close with their guards.
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, plan.path.c_str(), &actions, &attr, argv.data(), envp.data());
  posix_spawnattr_destroy(&attr);
  if (rc != 0)
    throw Exception("NSInvalidArgumentException",
                    std::string("Failed to launch ") + plan.path + ": " + std::strerror(rc));

  std::unique_ptr<ChildProcess> child(new ChildProcess());
  child->pid_ = pid;
  child->inputFd_ = release(in.write);
  child->outputFd_ = release(out.read);
  child->errorFd_ = release(err.read);
  // Linux 5.3 and later; the descriptor is close-on-exec by nature.
  child->exitFd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  return child;
}

ChildProcess::~ChildProcess() {
  closeFd(inputFd_);
  closeFd(outputFd_);
  closeFd(errorFd_);
  closeFd(exitFd_);
  if (pid_ > 0 && isRunning()) {
    std::thread([pid = pid_] {
      int ignored = 0;
      while (::waitpid(pid, &ignored, 0) < 0 && errno == EINTR) {
      }
    }).detach();
  }
}

bool ChildProcess::writeInput(std::string_view bytes) {
  if (inputFd_ < 0) return false;
  SigpipeGuard guard;
  while (!bytes.empty()) {
    const ssize_t n = ::write(inputFd_, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (errno == EPIPE) guard.noteEpipe();
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

void ChildProcess::closeInput() { closeFd(inputFd_); }

int ChildProcess::releaseOutput() { return release(outputFd_); }

int ChildProcess::releaseError() { return release(errorFd_); }

std::string ChildProcess::readOutputToEnd(std::optional<std::string_view> input) {
  std::string result;
  SigpipeGuard guard;
  std::string_view pending = input.value_or(std::string_view());
  if (input && inputFd_ >= 0) {
    ::fcntl(inputFd_, F_SETFL, ::fcntl(inputFd_, F_GETFL) | O_NONBLOCK);
    if (pending.empty()) closeInput();
  }
  while (outputFd_ >= 0) {
    const bool writing = input && inputFd_ >= 0;
    pollfd fds[3] = {
        {outputFd_, POLLIN, 0}, {errorFd_, POLLIN, 0}, {writing ? inputFd_ : -1, POLLOUT, 0}};
    if (::poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[0].revents != 0 && !readAvailable(outputFd_, &result)) closeFd(outputFd_);
    if (fds[1].revents != 0 && !readAvailable(errorFd_, nullptr)) closeFd(errorFd_);
    if (writing && fds[2].revents != 0) {
      const ssize_t n = ::write(inputFd_, pending.data(), pending.size());
      if (n > 0) pending.remove_prefix(static_cast<std::size_t>(n));
      if (n < 0 && errno == EPIPE) guard.noteEpipe();
      const bool failed = n < 0 && errno != EINTR && errno != EAGAIN;
      if (pending.empty() || failed) closeInput();
    }
  }
  closeFd(outputFd_);
  // Every holder of the output has gone: no one is left to read the rest of the input.
  if (input) closeInput();
  return result;
}

bool ChildProcess::readOutputFor(std::string& into, int milliseconds) {
  pollfd fds[2] = {{outputFd_, POLLIN, 0}, {exitFd_, POLLIN, 0}};
  const int ready = ::poll(fds, 2, milliseconds);
  if (ready > 0 && fds[0].revents != 0 && !readAvailable(outputFd_, &into)) closeFd(outputFd_);
  return outputFd_ >= 0;
}

bool ChildProcess::readAvailableOutput(std::string& into) {
  while (outputFd_ >= 0) {
    pollfd fd = {outputFd_, POLLIN, 0};
    const int ready = ::poll(&fd, 1, 0);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    if (!readAvailable(outputFd_, &into)) closeFd(outputFd_);
  }
  return outputFd_ >= 0;
}

bool ChildProcess::waitForExit(int milliseconds) {
  {
    std::lock_guard<std::mutex> hold(lock_);
    if (exited_) return true;
  }
  if (exitFd_ >= 0) {
    pollfd fd = {exitFd_, POLLIN, 0};
    while (true) {
      const int ready = ::poll(&fd, 1, milliseconds);
      if (ready < 0 && errno == EINTR) continue;
      return ready > 0;
    }
  }
  // Without a process descriptor: ask in short steps, leaving the status to be collected.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(milliseconds, 0));
  while (true) {
    siginfo_t info{};
    const int r = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
    if (r < 0 || info.si_pid == pid_) return true;
    if (milliseconds >= 0 && std::chrono::steady_clock::now() >= deadline) return false;
    ::usleep(5000);
  }
}

void ChildProcess::signalGroup(int number) {
  std::lock_guard<std::mutex> hold(lock_);
  if (!exited_) ::killpg(pid_, number);
}

void ChildProcess::drainSeparateErrorUntilExit() {
  // The output is done but the child may still write error text; keep its pipe from filling
  // until the child ends or every holder closes it.
  while (errorFd_ >= 0 && isRunning()) {
    pollfd fd = {errorFd_, POLLIN, 0};
    const int ready = ::poll(&fd, 1, 50);
    if (ready > 0 && !readAvailable(errorFd_, nullptr)) closeFd(errorFd_);
    if (ready < 0 && errno != EINTR) break;
  }
}

int ChildProcess::waitUntilExit() {
  drainSeparateErrorUntilExit();
  while (true) {
    // Wait without reaping, so the lock is not held while blocked and other threads may
    // still signal the child; the reaping itself happens under the lock.
    siginfo_t info{};
    const int r = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    if (r < 0 && errno == EINTR) continue;
    std::lock_guard<std::mutex> hold(lock_);
    if (reapLocked() || r < 0) {
      exited_ = true;  // with r < 0 it was reaped elsewhere; nothing more can be learnt
      return status_;
    }
  }
}

bool ChildProcess::isRunning() {
  std::lock_guard<std::mutex> hold(lock_);
  return !reapLocked();
}

int ChildProcess::terminationStatus() {
  std::lock_guard<std::mutex> hold(lock_);
  reapLocked();
  return status_;
}

int ChildProcess::waitStatus() {
  std::lock_guard<std::mutex> hold(lock_);
  reapLocked();
  return waitStatus_;
}

bool ChildProcess::reapLocked() {
  if (exited_) return true;
  int waitStatus = 0;
  const pid_t r = ::waitpid(pid_, &waitStatus, WNOHANG);
  if (r == pid_) {
    if (WIFEXITED(waitStatus) || WIFSIGNALED(waitStatus)) waitStatus_ = waitStatus;
    if (WIFEXITED(waitStatus)) {
      status_ = WEXITSTATUS(waitStatus);
      exited_ = true;
    } else if (WIFSIGNALED(waitStatus)) {
      status_ = WTERMSIG(waitStatus);
      exited_ = true;
    }
  } else if (r < 0 && errno == ECHILD) {
    exited_ = true;
  }
  return exited_;
}

void ChildProcess::signal(int number) {
  std::lock_guard<std::mutex> hold(lock_);
  if (!reapLocked()) ::kill(pid_, number);
}

void ChildProcess::terminate() { signal(SIGTERM); }

void ChildProcess::suspend() { signal(SIGSTOP); }

void ChildProcess::resume() { signal(SIGCONT); }

}  // namespace vesk
