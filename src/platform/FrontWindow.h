#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace vesk {

// The window the user works in, on the session's display.
class FrontWindow {
 public:
  virtual ~FrontWindow() = default;
  // The process that owns the front window; nullopt when there is no display, no front
  // window, or the window does not say. Called on the thread that made the object.
  virtual std::optional<pid_t> activeProcess() = 0;
  // From now on calls `changed` on the run loop of the calling thread each time another
  // window comes to the front. Once per object.
  virtual void watch(std::function<void()> changed) = 0;
};

// The front window of X11 display `display` (":0"), with the credentials of the X authority
// file at `authorityPath` (none when empty). A display that cannot be reached gives an object
// that answers nullopt and never calls back; `why` then says what failed.
std::unique_ptr<FrontWindow> makeX11FrontWindow(const std::string& display,
                                                const std::string& authorityPath,
                                                std::string* why = nullptr);
// For sessions without a display this platform can ask (Wayland, none at all).
std::unique_ptr<FrontWindow> makeNoFrontWindow();

// The credentials for display number `displayNumber` in the bytes of an X authority file
// (records of family, address, display number, protocol name and data, each length-prefixed,
// big-endian). Prefers an entry for that display number, then one for any display.
struct XAuthority {
  std::string name;  // "MIT-MAGIC-COOKIE-1"
  std::string data;
};
std::optional<XAuthority> xAuthorityFor(std::string_view file, std::string_view displayNumber);

}  // namespace vesk
