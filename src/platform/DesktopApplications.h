#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vesk {

// The applications installed for the desktop, by their application ID (the name of their
// .desktop file without the extension).
class DesktopApplications {
 public:
  virtual ~DesktopApplications() = default;
  // The application's name as its .desktop file gives it; nullopt when there is no such file.
  virtual std::optional<std::string> displayName(const std::string& applicationId) = 0;
};

// The .desktop files of the system (/usr/share/applications) and of the user whose home is
// `home` (~/.local/share/applications), never those the environment points to.
std::unique_ptr<DesktopApplications> makeSystemDesktopApplications(const std::string& home);

// The application ID a process was launched as, from the text of its /proc/<pid>/cgroup:
// the unified ("0::") line must end in a desktop launch unit, "app-<launcher>-<AppID>-<n>.scope"
// or "app-<launcher>-<AppID>@<n>.service" (the launcher part is optional, and an AppID may
// itself hold "-", escaped as "\x2d"). nullopt for every other process.
std::optional<std::string> desktopApplicationIdFromControlGroups(std::string_view cgroup);

}  // namespace vesk
