#include "platform/DesktopApplications.h"

#include <gio/gdesktopappinfo.h>

#include <map>

#include "foundation/Paths.h"
#include "platform/ProcessSecurity.h"

namespace vesk {
namespace {

class SystemDesktopApplications : public DesktopApplications {
 public:
  explicit SystemDesktopApplications(std::string home) : home_(std::move(home)) {}

  std::optional<std::string> displayName(const std::string& applicationId) override {
    if (applicationId.empty() || applicationId.find('/') != std::string::npos ||
        applicationId.starts_with("."))
      return std::nullopt;
    const auto known = names_.find(applicationId);
    if (known != names_.end()) return known->second;
    std::optional<std::string> name;
    // The user's own files come first, as the desktop itself looks them up; they are read as
    // the user, so that a link in the home cannot make a set-user-id process read for them
    // what they may not read themselves. The environment's data folders are never asked.
    if (!home_.empty()) {
      const ActingAsRealUser asUser;
      if (asUser.acting())
        name = nameIn(home_ + "/.local/share/applications/" + applicationId + ".desktop");
    }
    if (!name) name = nameIn(fsPath("/usr/share/applications/" + applicationId + ".desktop"));
    // A handful of applications in a session; the bound only guards against a flood of ids.
    if (names_.size() >= 512) names_.clear();
    names_.emplace(applicationId, name);
    return name;
  }

 private:
  static std::optional<std::string> nameIn(const std::string& path) {
    GDesktopAppInfo* info = g_desktop_app_info_new_from_filename(path.c_str());
    if (info == nullptr) return std::nullopt;
    const char* name = g_app_info_get_name(G_APP_INFO(info));
    std::optional<std::string> result;
    if (name != nullptr && *name != '\0') result = name;
    g_object_unref(info);
    return result;
  }

  std::string home_;
  std::map<std::string, std::optional<std::string>> names_;
};

}  // namespace

std::unique_ptr<DesktopApplications> makeSystemDesktopApplications(const std::string& home) {
  return std::make_unique<SystemDesktopApplications>(home);
}

}  // namespace vesk
