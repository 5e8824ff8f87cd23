#include "platform/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>

#include "foundation/Exception.h"

extern char** environ;

namespace vesk {
namespace {

void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
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
  int releaseRead() {
    const int fd = read;
    read = -1;
    return fd;
  }
  int releaseWrite() {
    const int fd = write;
    write = -1;
    return fd;
  }
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
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<std::string> argvStrings;
  argvStrings.reserve(plan.arguments.size() + 1);
  argvStrings.push_back(plan.path);
  argvStrings.insert(argvStrings.end(), plan.arguments.begin(), plan.arguments.end());
  std::vector<char*> argv = cStrings(argvStrings);
  std::vector<std::string> envStrings = plan.environment.value_or(std::vector<std::string>{});
  std::vector<char*> envp = cStrings(envStrings);

  pid_t pid = -1;
  const int rc = posix_spawn(&pid, plan.path.c_str(), &actions, &attr, argv.data(),
                             plan.environment ? envp.data() : environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0)
    throw Exception("NSInvalidArgumentException",
                    std::string("Failed to launch ") + plan.path + ": " + std::strerror(rc));

  std::unique_ptr<ChildProcess> child(new ChildProcess());
  child->pid_ = pid;
  child->inputFd_ = in.releaseWrite();
  child->outputFd_ = out.releaseRead();
  child->errorFd_ = err.releaseRead();
  return child;
}

ChildProcess::~ChildProcess() {
  closeFd(inputFd_);
  closeFd(outputFd_);
  closeFd(errorFd_);
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
  // Block SIGPIPE on this thread for the write and swallow one that the write raised, so a
  // child that closed its input cannot end this process.
  sigset_t pipeSet, old;
  sigemptyset(&pipeSet);
  sigaddset(&pipeSet, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSet, &old);
  bool ok = true;
  while (!bytes.empty()) {
    const ssize_t n = ::write(inputFd_, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      break;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  if (!ok && errno == EPIPE) {
    const timespec zero{0, 0};
    sigset_t pending;
    sigpending(&pending);
    if (sigismember(&pending, SIGPIPE) == 1) sigtimedwait(&pipeSet, nullptr, &zero);
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return ok;
}

void ChildProcess::closeInput() { closeFd(inputFd_); }

std::string ChildProcess::readOutputToEnd() {
  std::string result;
  while (outputFd_ >= 0) {
    pollfd fds[2] = {{outputFd_, POLLIN, 0}, {errorFd_, POLLIN, 0}};
    const nfds_t n = errorFd_ >= 0 ? 2 : 1;
    if (::poll(fds, n, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[0].revents != 0 && !readAvailable(outputFd_, &result)) closeFd(outputFd_);
    if (n == 2 && fds[1].revents != 0 && !readAvailable(errorFd_, nullptr)) closeFd(errorFd_);
  }
  closeFd(outputFd_);
  return result;
}

void ChildProcess::drainSeparateErrorUntilExit() {
  // The output is done but the child may still write error text; keep its pipe from filling
  // until the child ends or every holder closes it.
  while (errorFd_ >= 0 && !exited_) {
    pollfd fd = {errorFd_, POLLIN, 0};
    const int ready = ::poll(&fd, 1, 50);
    if (ready > 0 && !readAvailable(errorFd_, nullptr)) closeFd(errorFd_);
    if (ready < 0 && errno != EINTR) break;
    isRunning();
  }
}

int ChildProcess::waitUntilExit() {
  drainSeparateErrorUntilExit();
  while (!exited_) {
    int waitStatus = 0;
    const pid_t r = ::waitpid(pid_, &waitStatus, 0);
    if (r == pid_) {
      recordStatus(waitStatus);
    } else if (r < 0 && errno != EINTR) {
      exited_ = true;  // reaped elsewhere; nothing more can be learnt
    }
  }
  return status_;
}

bool ChildProcess::isRunning() {
  if (exited_) return false;
  int waitStatus = 0;
  const pid_t r = ::waitpid(pid_, &waitStatus, WNOHANG);
  if (r == pid_) {
    recordStatus(waitStatus);
  } else if (r < 0 && errno == ECHILD) {
    exited_ = true;
  }
  return !exited_;
}

void ChildProcess::recordStatus(int waitStatus) {
  if (WIFEXITED(waitStatus)) {
    status_ = WEXITSTATUS(waitStatus);
    exited_ = true;
  } else if (WIFSIGNALED(waitStatus)) {
    status_ = WTERMSIG(waitStatus);
    exited_ = true;
  }
}

void ChildProcess::terminate() {
  if (!exited_) ::kill(pid_, SIGTERM);
}

void ChildProcess::suspend() {
  if (!exited_) ::kill(pid_, SIGSTOP);
}

void ChildProcess::resume() {
  if (!exited_) ::kill(pid_, SIGCONT);
}

}  // namespace vesk
