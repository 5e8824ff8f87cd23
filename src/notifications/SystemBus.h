#pragma once

#include <sys/types.h>

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
// Distributed notifications.
inline constexpr const char* kDistributedPath = "/com/vesksoftware/DistributedNotificationCenter";
inline constexpr const char* kDistributedInterface =
    "com.vesksoftware.DistributedNotificationCenter";
// The error a refused caller gets.
inline constexpr const char* kRefusedError = "com.vesksoftware.vesk.Error.AccessDenied";

// The process's one connection to the system bus (DBUS_SYSTEM_BUS_ADDRESS where the process
// may trust its environment). It is thread-safe. Made on first use and made again after the
// bus went away; the process never exits because the bus closed. Null, with `why` set, when
// there is no bus.
GDBusConnection* systemBus(std::string* why = nullptr);

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

}  // namespace vesk
