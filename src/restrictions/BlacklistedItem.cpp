#include "restrictions/BlacklistedItem.h"

#include <fmt/format.h>

namespace vesk {
namespace {

std::string orNull(const std::optional<std::string>& text) { return text.value_or("(null)"); }

}  // namespace

std::string BlacklistedItem::description() const {
  // "Whitelist:" has no blank after it, unlike every other label; readers of the log expect it.
  // clang-format off
  return fmt::format("ID: {}\nName: {}\nProcess: {}\nRequire Exact Match: {}\nMessage: {}\nNotify: {}\nKill: {}\nDelete: {}\nWhitelist:{}",
      // clang-format on
      orNull(blacklistID_), orNull(name_), orNull(process_), getBoolVal(requireExactMatch_),
      orNull(message_), getBoolVal(notify_), getBoolVal(killApp_), getBoolVal(deleteApp_),
      whitelistedUsers_.description());
}

}  // namespace vesk
