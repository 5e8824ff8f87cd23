#pragma once

#include <optional>
#include <string>

#include "foundation/Value.h"

namespace vesk {

// One entry of the restricted-software list: what to match, what to do on a match, and two
// flags that carry the enforcement's state from one pass to the next (never read from or
// written to the file).
class BlacklistedItem {
 public:
  bool notify() const { return notify_; }
  void setNotify(bool value) { notify_ = value; }
  bool killApp() const { return killApp_; }
  void setKillApp(bool value) { killApp_ = value; }
  bool requireExactMatch() const { return requireExactMatch_; }
  void setRequireExactMatch(bool value) { requireExactMatch_ = value; }
  bool deleteApp() const { return deleteApp_; }
  void setDeleteApp(bool value) { deleteApp_ = value; }
  const std::optional<std::string>& blacklistID() const { return blacklistID_; }
  void setBlacklistID(std::optional<std::string> value) { blacklistID_ = std::move(value); }
  const std::optional<std::string>& name() const { return name_; }
  void setName(std::optional<std::string> value) { name_ = std::move(value); }
  const std::optional<std::string>& process() const { return process_; }
  void setProcess(std::optional<std::string> value) { process_ = std::move(value); }
  const std::optional<std::string>& message() const { return message_; }
  void setMessage(std::optional<std::string> value) { message_ = std::move(value); }
  // Users to whom the entry does not apply; only the keys matter (each value is "").
  const Dictionary& whitelistedUsers() const { return whitelistedUsers_; }
  Dictionary& whitelistedUsers() { return whitelistedUsers_; }
  bool notified() const { return notified_; }
  void setNotified(bool value) { notified_ = value; }
  bool isRunning() const { return isRunning_; }
  void setIsRunning(bool value) { isRunning_ = value; }

  static std::string getBoolVal(bool value) { return value ? "YES" : "NO"; }
  // For logs: "ID: …\nName: …\n…\nWhitelist:{…}" (no blank after the last label).
  std::string description() const;

 private:
  bool notify_ = false;
  bool killApp_ = false;
  bool requireExactMatch_ = false;
  bool deleteApp_ = false;
  std::optional<std::string> blacklistID_;
  std::optional<std::string> name_;
  std::optional<std::string> process_;
  std::optional<std::string> message_;
  Dictionary whitelistedUsers_;
  bool notified_ = false;
  bool isRunning_ = false;
};

}  // namespace vesk
