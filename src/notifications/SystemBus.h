#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GVariant GVariant;

namespace vesk {

// The daemon's center on the bus.
inline constexpr const char* kDaemonCenterName = "com.vesksoftware.vesk.vesknotificationcenter";
inline constexpr const char* kDaemonCenterPath = "/com/vesksoftware/vesk/VESKNotificationCenter";
inline constexpr const char* kDaemonCenterInterface =
    "com.vesksoftware.vesk.VESKNotificationCenter";
// What an observer in another process exports.
inline constexpr const char* kDaemonObserverInterface = "com.vesksoftware.vesk.DaemonObserver";
// Distributed notifications. The bus lets only root send on the root path, so a notification
// that arrives there is root's without asking who sent it (see DistributedNotificationCenter).
inline constexpr const char* kDistributedPath = "/com/vesksoftware/DistributedNotificationCenter";
inline constexpr const char* kDistributedRootPath =
    "/com/vesksoftware/DistributedNotificationCenter/root";
inline constexpr const char* kDistributedInterface =
    "com.vesksoftware.DistributedNotificationCenter";
// The error a refused caller gets.
inline constexpr const char* kRefusedError = "com.vesksoftware.vesk.Error.AccessDenied";

// The largest notification the client sends, as it travels: the bus drops the connection of
// a peer that sends a message beyond its own limit (32 MB by default), which would leave the
// process deaf. Longer text, such as a policy's output, travels in pieces (piecesForPosting).
inline constexpr std::size_t kMaxPostBytes = 8u << 20;

// The process's one connection to the system bus (DBUS_SYSTEM_BUS_ADDRESS where the process
// may trust its environment). It is thread-safe. A set-user-id process makes it as its real
// user: the bus takes a peer's credentials when the connection is made, and an agent that
// looked like root would pass every other agent's checks. Made on first use; null, with `why`
// set, when there is no bus.
//
// After the bus has gone away (restarted, or it dropped the connection) a process that called
// exitWhenSystemBusLost has ended; any other gets a new connection at its next call, and the
// objects it made on the old one stay deaf.
GDBusConnection* systemBus(std::string* why = nullptr);

// Which connection systemBus answers: a new number for each one made. Peers' connection names
// start again at ":1.0" on a new bus, so what is learnt about a name is kept per generation.
std::uint64_t systemBusGeneration();

// Whether the bus knows this process as root (and it may send on the root path).
bool systemBusIsRoot();

// The exit status of a process that lost its connection to the bus.
inline constexpr int kSystemBusLostStatus = 75;  // EX_TEMPFAIL: start me again

// Opens the connection now and, once it is lost, ends the process with kSystemBusLostStatus
// after `announce` has said why: its supervisor starts it again on a connection made afresh.
// For long-running processes (the agent, vesk-center serve), from their start-up, before
// other threads exist. False, with `why` set, when there is no bus.
bool exitWhenSystemBusLost(std::function<void(const std::string& why)> announce,
                           std::string* why = nullptr);

// Questions to the bus itself; nullopt when it cannot answer (no such name, no bus).
std::optional<std::string> nameOwner(GDBusConnection* bus, const std::string& name);
std::optional<uid_t> connectionUnixUser(GDBusConnection* bus, const std::string& sender);

// Waits for one round trip to the bus. Messages on a connection keep their order, so once it
// returns the bus has taken everything sent before it, a subscription's match rule included.
void waitForBus(GDBusConnection* bus);

// A method call that waits for its reply: the reply, or null with `why` set (a D-Bus error,
// no reply in time). `parameters` is consumed when floating.
GVariant* callSync(GDBusConnection* bus, const std::string& destination, const char* path,
                   const char* interface, const char* method, GVariant* parameters,
                   const char* replyType, int timeoutMs, std::string* why);

// Why `parameters` (not floating) is too large to post, past kMaxPostBytes; "" when it is not.
std::string tooLargeToPost(GVariant* parameters);

}  // namespace vesk
