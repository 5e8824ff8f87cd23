#include "platform/ProcessEvents.h"

#include <cstring>

namespace vesk {
namespace {

// The kernel's layouts, little-endian on every machine this runs on: a netlink header
// (length, type, flags, sequence, port), a connector header (index, value, sequence,
// acknowledgement, length, flags) and the process event (what, cpu, timestamp, then the
// event's own fields).
constexpr std::size_t kNetlinkHeader = 16;
constexpr std::size_t kConnectorHeader = 20;
constexpr std::size_t kEventHeader = 16;
constexpr std::uint16_t kNetlinkDone = 3;
constexpr std::uint32_t kProcessConnectorIndex = 1;
constexpr std::uint32_t kProcessConnectorValue = 1;
constexpr std::uint32_t kEventNone = 0;  // the answer to a subscription
constexpr std::uint32_t kEventExec = 0x00000002;
constexpr std::uint32_t kEventExit = 0x80000000;

template <typename T>
T read(std::span<const std::uint8_t> bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

}  // namespace

std::vector<ConnectorMessage> decodeConnectorDatagram(std::span<const std::uint8_t> datagram) {
  std::vector<ConnectorMessage> messages;
  std::size_t at = 0;
  while (datagram.size() - at >= kNetlinkHeader) {
    const std::span<const std::uint8_t> rest = datagram.subspan(at);
    const auto length = read<std::uint32_t>(rest, 0);
    if (length < kNetlinkHeader || length > rest.size()) break;
    const std::span<const std::uint8_t> message = rest.first(length);
    at += (length + 3u) & ~3u;  // messages are aligned to four bytes
    if (at > datagram.size()) at = datagram.size();
    if (read<std::uint16_t>(message, 4) != kNetlinkDone) continue;
    const std::span<const std::uint8_t> connector = message.subspan(kNetlinkHeader);
    if (connector.size() < kConnectorHeader ||
        read<std::uint32_t>(connector, 0) != kProcessConnectorIndex ||
        read<std::uint32_t>(connector, 4) != kProcessConnectorValue)
      continue;
    const std::uint16_t payload = read<std::uint16_t>(connector, 16);
    const std::span<const std::uint8_t> event = connector.subspan(kConnectorHeader);
    if (payload > event.size() || payload < kEventHeader) continue;
    ConnectorMessage decoded;
    const auto what = read<std::uint32_t>(event, 0);
    // Exec carries the pid and tgid; exit those and four more fields; the answer to a
    // subscription carries its error.
    if (what == kEventExec || what == kEventExit) {
      if (payload < kEventHeader + (what == kEventExec ? 8u : 24u)) continue;
      decoded.kind =
          what == kEventExec ? ConnectorMessage::Kind::kExec : ConnectorMessage::Kind::kExit;
      decoded.pid = read<std::int32_t>(event, kEventHeader);
      decoded.tgid = read<std::int32_t>(event, kEventHeader + 4);
    } else if (what == kEventNone) {
      if (payload < kEventHeader + 4) continue;
      decoded.kind = ConnectorMessage::Kind::kAcknowledgement;
    }
    messages.push_back(decoded);
  }
  return messages;
}

std::vector<ProcessEvent> reconcileProcesses(std::map<pid_t, std::string>& known,
                                             const std::vector<ProcessRecord>& now) {
  std::vector<ProcessEvent> events;
  std::map<pid_t, std::string> current;
  for (const ProcessRecord& process : now) current.emplace(process.pid, process.path);
  for (const auto& [pid, path] : known) {
    const auto still = current.find(pid);
    if (still == current.end() || still->second != path)
      events.push_back(ProcessEvent{ProcessEvent::Kind::kExit, pid, 0, path, nullptr});
  }
  for (const auto& [pid, path] : current) {
    const auto before = known.find(pid);
    if (before == known.end() || before->second != path)
      events.push_back(ProcessEvent{ProcessEvent::Kind::kExec, pid, 0, path, nullptr});
  }
  known = std::move(current);
  return events;
}

}  // namespace vesk
