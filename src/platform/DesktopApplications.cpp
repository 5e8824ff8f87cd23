#include "platform/DesktopApplications.h"

#include <cctype>

namespace vesk {
namespace {

// systemd escapes a unit name's "-" and other bytes as "\xNN".
std::string unescapeUnitName(std::string_view name) {
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '\\' && i + 3 < name.size() && name[i + 1] == 'x' &&
        std::isxdigit(static_cast<unsigned char>(name[i + 2])) &&
        std::isxdigit(static_cast<unsigned char>(name[i + 3]))) {
      out.push_back(static_cast<char>(std::stoi(std::string(name.substr(i + 2, 2)), nullptr, 16)));
      i += 3;
    } else {
      out.push_back(name[i]);
    }
  }
  return out;
}

bool allOf(std::string_view text, int (*test)(int)) {
  if (text.empty()) return false;
  for (const char c : text)
    if (!test(static_cast<unsigned char>(c))) return false;
  return true;
}

}  // namespace

std::optional<std::string> desktopApplicationIdFromControlGroups(std::string_view cgroup) {
  // The unified hierarchy's line; the other lines belong to the legacy controllers.
  std::string_view path;
  for (std::size_t start = 0; start < cgroup.size();) {
    std::size_t end = cgroup.find('\n', start);
    if (end == std::string_view::npos) end = cgroup.size();
    const std::string_view line = cgroup.substr(start, end - start);
    start = end + 1;
    if (line.starts_with("0::")) path = line.substr(3);
  }
  std::string_view unit =
      path.substr(path.rfind('/') == std::string_view::npos ? 0 : path.rfind('/') + 1);
  // "app-[<launcher>-]<AppID>-<n>.scope" or "app-[<launcher>-]<AppID>[@<n>].service".
  std::string_view id;
  if (!unit.starts_with("app-")) return std::nullopt;
  unit.remove_prefix(4);
  if (unit.ends_with(".scope")) {
    unit.remove_suffix(6);
    const std::size_t dash = unit.rfind('-');
    if (dash == std::string_view::npos || dash == 0) return std::nullopt;
    if (!allOf(unit.substr(dash + 1), std::isalnum)) return std::nullopt;
    id = unit.substr(0, dash);
  } else if (unit.ends_with(".service")) {
    unit.remove_suffix(8);
    id = unit.substr(0, unit.find('@'));
  } else {
    return std::nullopt;
  }
  // What is left is "<launcher>-<AppID>" or "<AppID>": an escaped AppID has no "-" of its own.
  const std::size_t dash = id.find('-');
  if (dash != std::string_view::npos) id.remove_prefix(dash + 1);
  if (id.empty() || id.find('-') != std::string_view::npos) return std::nullopt;
  return unescapeUnitName(id);
}

}  // namespace vesk
