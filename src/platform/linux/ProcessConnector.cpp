#include <fcntl.h>
#include <glib-unix.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "foundation/RunLoop.h"
#include "platform/ProcessEvents.h"
#include "platform/linux/ProcFiles.h"

extern char** environ;

namespace vesk {
namespace {

using Clock = std::chrono::steady_clock;
using Log = std::function<void(const std::string&)>;

constexpr double kScanInterval = 0.25;
constexpr int kProofMs = 1000;

// The operations a listener sends to the process connector.
constexpr std::uint32_t kListen = 1;
// Only exec and exit events, where the kernel can filter (from 6.6 on): a busy machine forks
// and renames threads far more often than it starts programs.
constexpr std::uint32_t kExecAndExit = 0x00000002u | 0x80000000u;

// What an exec is: the process pinned first, then its executable and owner read through its
// /proc folder, so that the pin and what was read are one process. A process that has ended
// meanwhile reports what could be read, and its pin kills nothing.
ProcessEvent execEvent(ProcessTable& table, pid_t pid) {
  ProcessEvent event{ProcessEvent::Kind::kExec, pid, 0, {}, table.pin(pid)};
  char name[32];
  std::snprintf(name, sizeof name, "/proc/%d", static_cast<int>(pid));
  const int folder = ::open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) {
    event.path = executablePath(folder, "exe");
    event.uid = effectiveUid(folder).value_or(0);
    ::close(folder);
  }
  return event;
}

// Which processes run now, with their executables: what the sources compare with.
std::map<pid_t, std::string> currentTable(ProcessTable& table) {
  std::map<pid_t, std::string> known;
  for (const ProcessRecord& process : table.listExecutables()) known[process.pid] = process.path;
  return known;
}

// Turns the difference between two looks at the table into events: pins and owners for the
// new ones, and the ends.
void deliverDifference(ProcessTable& table, std::map<pid_t, std::string>& known,
                       const std::function<void(ProcessEvent)>& deliver) {
  for (ProcessEvent& event : reconcileProcesses(known, table.listExecutables())) {
    if (event.kind == ProcessEvent::Kind::kExec) {
      ProcessEvent exec = execEvent(table, event.pid);
      // Read again for the pin; a process that ended or changed since keeps the listed path.
      if (exec.path.empty()) exec.path = event.path;
      deliver(std::move(exec));
    } else {
      deliver(std::move(event));
    }
  }
}

// The process table looked at four times a second, for when the kernel's reports cannot be
// had. A program that starts and ends between two looks is not seen; the enforcement pass
// does not see it either.
class ScanningSource : public ProcessEventSource {
 public:
  explicit ScanningSource(ProcessTable& table) : table_(table) {}

  void start(Handler handler) override {
    handler_ = std::move(handler);
    known_ = currentTable(table_);
    timer_ = RunLoop::current().scheduledTimer(kScanInterval, true, [this](Timer&) {
      deliverDifference(table_, known_, [this](ProcessEvent event) { handler_(event); });
    });
  }
  std::string mode() const override { return "scan"; }
  std::uint64_t rescans() const override { return 0; }
  ~ScanningSource() override {
    if (timer_) timer_->invalidate();
  }

 private:
  ProcessTable& table_;
  Handler handler_;
  std::map<pid_t, std::string> known_;
  std::shared_ptr<Timer> timer_;
};

// The kernel's process connector: each exec and exit of the machine, 30 to 40 microseconds
// after it happened. The socket is read on the run loop that handles the events: a thread of
// its own would add a second wake-up to every launch, and the kernel's buffer (8 MiB, some
// ten thousand events) covers a loop that is busy for a while; past that, the table is read
// again.
class ConnectorSource : public ProcessEventSource {
 public:
  ConnectorSource(ProcessTable& table, Log log, int socket)
      : table_(table), log_(std::move(log)), socket_(socket) {}

  ~ConnectorSource() override {
    for (GSource* source : {watch_, earlySource_}) {
      if (source == nullptr) continue;
      g_source_destroy(source);
      g_source_unref(source);
    }
    ::close(socket_);
  }

  // Subscribes, proves the subscription with a program of its own, and starts reading. False
  // when no exec is heard: the caller scans instead.
  bool subscribe(std::string* why) {
    for (const bool filtered : {true, false}) {
      if (!sendListen(filtered, why)) return false;
      // Taken once subscribed, so that nothing falls between the two.
      if (filtered) known_ = currentTable(table_);
      if (proven(why)) return true;
    }
    return false;
  }

  void start(Handler handler) override {
    handler_ = std::move(handler);
    watch_ = g_unix_fd_source_new(socket_, G_IO_IN);
    g_source_set_callback(watch_, G_SOURCE_FUNC(+[](gint, GIOCondition, gpointer self) -> gboolean {
                            static_cast<ConnectorSource*>(self)->readAvailable();
                            return G_SOURCE_CONTINUE;
                          }),
                          this, nullptr);
    g_source_attach(watch_, RunLoop::current().context());
    // What was heard while the subscription was proven comes first, at the loop's next turn.
    earlySource_ = g_idle_source_new();
    g_source_set_callback(earlySource_, G_SOURCE_FUNC(+[](gpointer self) -> gboolean {
                            static_cast<ConnectorSource*>(self)->deliverEarly();
                            return G_SOURCE_REMOVE;
                          }),
                          this, nullptr);
    g_source_attach(earlySource_, RunLoop::current().context());
  }
  std::string mode() const override { return "connector"; }
  std::uint64_t rescans() const override { return rescans_; }

 private:
  bool sendListen(bool filtered, std::string* why) {
    // A netlink header, the connector's, then the operation and, where the kernel filters,
    // the events wanted.
    const std::uint32_t input[2] = {kListen, kExecAndExit};
    const std::size_t payload = filtered ? sizeof input : sizeof input[0];
    alignas(nlmsghdr) std::uint8_t message[sizeof(nlmsghdr) + sizeof(cn_msg) + sizeof input] = {};
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof(nlmsghdr) + sizeof(cn_msg) + payload);
    header.nlmsg_type = NLMSG_DONE;
    header.nlmsg_pid = static_cast<std::uint32_t>(::getpid());
    cn_msg connector{};
    connector.id.idx = CN_IDX_PROC;
    connector.id.val = CN_VAL_PROC;
    connector.len = static_cast<std::uint16_t>(payload);
    std::memcpy(message, &header, sizeof header);
    std::memcpy(message + sizeof header, &connector, sizeof connector);
    std::memcpy(message + sizeof header + sizeof connector, input, payload);
    if (::send(socket_, message, header.nlmsg_len, 0) < 0) {
      *why = std::string("Failed to subscribe to the process connector: ") + std::strerror(errno);
      return false;
    }
    return true;
  }

  // Starts /bin/true and waits up to a second for its exec; what else arrives meanwhile is
  // kept for delivery.
  bool proven(std::string* why) {
    pid_t child = 0;
    char* const arguments[] = {const_cast<char*>("/bin/true"), nullptr};
    if (::posix_spawn(&child, "/bin/true", nullptr, nullptr, arguments, environ) != 0) {
      *why = "Failed to start /bin/true to prove the process connector";
      return false;
    }
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kProofMs);
    bool heard = false;
    while (!heard) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) break;
      pollfd wait{socket_, POLLIN, 0};
      if (::poll(&wait, 1, static_cast<int>(left)) <= 0) continue;
      receive([&](ProcessEvent event) {
        if (event.kind == ProcessEvent::Kind::kExec && event.pid == child) heard = true;
        early_.push_back(std::move(event));
      });
    }
    ::waitpid(child, nullptr, 0);
    if (!heard) *why = "The process connector reported no exec of /bin/true within a second";
    return heard;
  }

  void deliverEarly() {
    for (const ProcessEvent& event : std::exchange(early_, {})) handler_(event);
  }

  // Handles what the socket holds now, a bounded number of datagrams at a time so that the
  // loop's other sources get their turn in a burst.
  void readAvailable() {
    deliverEarly();
    const auto deliver = [this](ProcessEvent event) { handler_(event); };
    for (int datagrams = 0; datagrams < 256; ++datagrams)
      if (!receive(deliver)) break;
  }

  // Reads one datagram and delivers its events; false when there is none to read.
  bool receive(const std::function<void(ProcessEvent)>& deliver) {
    alignas(nlmsghdr) std::uint8_t buffer[8192];
    const ssize_t length = ::recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT);
    if (length < 0) {
      if (errno == ENOBUFS) {
        // The kernel dropped events: what runs now is compared with what was known.
        ++rescans_;
        log_(
            "Process events were lost (the receive buffer overflowed); the process table was "
            "read again");
        deliverDifference(table_, known_, deliver);
        return true;
      }
      return false;
    }
    if (length == 0) return false;
    for (const ConnectorMessage& message :
         decodeConnectorDatagram({buffer, static_cast<std::size_t>(length)})) {
      if (message.kind == ConnectorMessage::Kind::kExec) {
        ProcessEvent event = execEvent(table_, message.tgid);
        known_[event.pid] = event.path;
        deliver(std::move(event));
      } else if (message.kind == ConnectorMessage::Kind::kExit && message.pid == message.tgid) {
        // A thread's end is not the process's; a process never seen to start (forked without
        // a new program) is nobody's news either.
        const auto found = known_.find(message.tgid);
        if (found == known_.end()) continue;
        deliver(ProcessEvent{ProcessEvent::Kind::kExit, message.tgid, 0, found->second, nullptr});
        known_.erase(found);
      }
    }
    return true;
  }

  ProcessTable& table_;
  Log log_;
  int socket_;
  std::uint64_t rescans_ = 0;
  Handler handler_;
  GSource* watch_ = nullptr;         // a reference of our own
  GSource* earlySource_ = nullptr;   // a reference of our own
  std::vector<ProcessEvent> early_;  // heard while proving, before start
  std::map<pid_t, std::string> known_;
};

int openConnector(int receiveBuffer, std::string* why) {
  const int fd = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
  if (fd < 0) {
    *why = std::string("Failed to open netlink connector socket: ") + std::strerror(errno);
    return -1;
  }
  // The kernel lets root go past the system's limit.
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) != 0)
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = CN_IDX_PROC;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    *why = std::string("Failed to bind netlink connector socket: ") + std::strerror(errno);
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

std::unique_ptr<ProcessEventSource> makeSystemProcessEventSource(ProcessTable& table, Log log,
                                                                 int receiveBuffer) {
  std::string why;
  const int fd = openConnector(receiveBuffer, &why);
  if (fd >= 0) {
    auto connector = std::make_unique<ConnectorSource>(table, log, fd);
    if (connector->subscribe(&why)) return connector;
  }
  log(why + "; watching the process table every 0.25 s instead");
  return std::make_unique<ScanningSource>(table);
}

}  // namespace vesk
