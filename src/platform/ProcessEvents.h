#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/ProcessTable.h"

namespace vesk {

// A program started (exec) or a process ended (exit), anywhere on the machine.
struct ProcessEvent {
  enum class Kind { kExec, kExit };
  Kind kind = Kind::kExec;
  pid_t pid = 0;
  uid_t uid = 0;     // effective; for exec only
  std::string path;  // the executable, raw bytes; empty when it could not be read
  // For exec: the process itself, held from before its executable was read until the handlers
  // have run, so that a kill from a handler reaches this process and never one that took its
  // pid later (ProcessTable::sendKill goes through it).
  std::shared_ptr<ProcessPin> pin;
};

// Every exec and exit on the machine, delivered in the order the system reported them.
class ProcessEventSource {
 public:
  using Handler = std::function<void(const ProcessEvent&)>;
  virtual ~ProcessEventSource() = default;

  // Starts reporting on the run loop of the calling thread; once per source. A source that
  // cannot hear the system directly watches the process table instead, and says so once.
  virtual void start(Handler handler) = 0;
  // How it listens: "connector" (the kernel reports each event) or "scan" (the process table
  // is compared with the last look four times a second).
  virtual std::string mode() const = 0;
  // How many times the system dropped events and the table was read again to make up for it.
  virtual std::uint64_t rescans() const = 0;
};

// The machine's source: the kernel's process connector when this process may listen to it
// (root), else a scan of the process table. `log` is told why it scans, and each time the
// kernel dropped events and the table was read again. The default receive buffer holds about
// 250 events, and a burst of launches would overflow it at once: the connector's holds some
// ten thousand (tests make it small to see what an overflow does).
inline constexpr int kProcessEventsReceiveBuffer = 8 << 20;
std::unique_ptr<ProcessEventSource> makeSystemProcessEventSource(
    ProcessTable& table, std::function<void(const std::string&)> log,
    int receiveBuffer = kProcessEventsReceiveBuffer);

// What one message of the kernel's process connector says. The decoder takes the bytes of one
// datagram as read from the socket.
struct ConnectorMessage {
  enum class Kind { kExec, kExit, kAcknowledgement, kOther };
  Kind kind = Kind::kOther;
  pid_t pid = 0;                   // the thread that did it
  pid_t tgid = 0;                  // its process
  std::uint32_t acknowledged = 0;  // for an acknowledgement: the error the kernel answered
};
// Each complete process-connector message in `datagram`, in order; truncated or malformed
// ones, and those of other connectors, are left out.
std::vector<ConnectorMessage> decodeConnectorDatagram(std::span<const std::uint8_t> datagram);

// What the table holds now against what was known: the starts (new pids, or a pid running
// another executable) and the ends, as events without pins. `known` becomes the new table.
// Used to make up for events the system dropped, and by the scanning source.
std::vector<ProcessEvent> reconcileProcesses(std::map<pid_t, std::string>& known,
                                             const std::vector<ProcessRecord>& now);

}  // namespace vesk
