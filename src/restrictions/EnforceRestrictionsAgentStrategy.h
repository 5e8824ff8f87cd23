#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/Value.h"
#include "platform/ProcessTable.h"
#include "restrictions/BlacklistedSoftwareHelper.h"
#include "restrictions/VESKProcessHandler.h"

namespace vesk {

// What enforcement needs of the agent command that owns it. Each use first asks whether the
// command offers the operation ("userName", "postNotificationToDaemon:userInfo:") and skips
// it when not.
class EnforcementCommand {
 public:
  virtual ~EnforcementCommand() = default;
  virtual bool respondsToSelector(std::string_view selector) const = 0;
  // The session's user; nullopt when there is none.
  virtual std::optional<std::string> userName() = 0;
  // Posts to the daemon, adding "Username" to the payload.
  virtual void postNotificationToDaemon(const std::string& name, const Dictionary& userInfo) = 0;
};

// Applies the restricted-software list in the user's session: at every application launch
// and in a pass over every process every fifteen seconds. A match is killed, its application
// deleted and the daemon told, as the entry says. Everything runs on the agent's main loop;
// a pass must not overlap another, and no lock is taken.
class EnforceRestrictionsAgentStrategy {
 public:
  // Reads the list at once.
  explicit EnforceRestrictionsAgentStrategy(ProcessTable& table = ProcessTable::system());

  // Reads the list again; every run-time flag starts afresh.
  void initRestrictionsList();
  void manageFramework() { initRestrictionsList(); }

  void launchingApplication(const Dictionary& userInfo) { checkApplication(userInfo); }
  void checkApplication(const Dictionary& userInfo);
  // A process entry of BSDProcessList ("path", "pid", "uid").
  void checkProcess(const Dictionary& process);
  void checkProcessOrApplicationWithAppPath(const std::optional<std::string>& appPath,
                                            const std::optional<std::string>& username,
                                            const ProcessSerialNumber& processSerialNbr, pid_t pid);
  // The pass over every process.
  void fewSecondHandler();

  // Whether pattern P names the executable or application at `path`: a pattern with "/"
  // against the path's leading components, one without ".app" against the executable's name
  // or a bundle's name without its extension, one with ".app" against any component.
  static bool blacklistProcess(std::string_view pattern, const std::optional<std::string>& matches,
                               bool requireExactMatch);
  // Exact: equal. Otherwise a case-insensitive shell pattern in which "?" is only itself; the
  // patterns "*", "*.app", "*.app*", "**.app*" and "**" match nothing, by design.
  static bool process(std::string_view pattern, std::string_view matches, bool requireExactMatch);
  // What to delete for a match: the path up to its first ".app" component, else all of it.
  static std::string deletePath(std::string_view path);
  void notifyDaemonOfBlacklistedProcessWithBlacklistID(std::int64_t blacklistID,
                                                       const std::string& process,
                                                       const std::optional<std::string>& owner,
                                                       pid_t processID, const std::string& appPath);

  EnforcementCommand* command() const { return command_; }
  void setCommand(EnforcementCommand* command) { command_ = command; }
  const Blacklist& blacklist() const { return blacklist_; }
  void setBlacklist(Blacklist blacklist);

  // A pattern ready for matching: lower-cased, "?" made literal, over-broad ones marked. A
  // pattern whose only wildcards are "*" at its ends is compared as text, which answers what
  // the shell-pattern match would, without it.
  struct PreparedPattern {
    enum class Kind { kShellPattern, kEquals, kContains, kPrefix, kSuffix };
    std::string pattern;
    bool overBroad = false;
    Kind kind = Kind::kShellPattern;
    std::string literal;  // for the kinds other than kShellPattern
    bool matches(const std::string& lowered) const;
  };
  static PreparedPattern preparePattern(std::string_view pattern);

 private:
  enum class Branch { kPathPrefix, kExecutableOrBundleName, kAnyComponent };
  // What stays the same between passes for one entry.
  struct CompiledEntry {
    const std::string* key;
    BlacklistedItem* item;
    Branch branch;
    PreparedPattern prepared;    // for entries that are not exact
    std::size_t components = 0;  // for the path-prefix branch
  };
  class SplitPath;

  static CompiledEntry compile(const std::string& key, BlacklistedItem& item);
  // The indexes in compiled_ of the entries whose pattern names `appPath`, in the list's order;
  // the path is looked at, never copied.
  std::vector<std::size_t> matchingEntries(std::optional<std::string_view> appPath);
  // What the matched entries ask for, for one process.
  void enforce(const std::vector<std::size_t>& matched, const std::string& fullPath,
               const std::optional<std::string>& username,
               const ProcessSerialNumber& processSerialNbr, pid_t pid);
  static bool matches(const CompiledEntry& entry, SplitPath& path);
  void post(const std::string& name, const Dictionary& userInfo);
  std::optional<std::string> userNameForUid(uid_t uid);

  ProcessTable& table_;
  EnforcementCommand* command_ = nullptr;  // the owner; outlives this
  Blacklist blacklist_;
  std::vector<CompiledEntry> compiled_;  // in the list's order
  // Exact entries matched by name, by that name; the others, tested one by one.
  std::unordered_map<std::string, std::vector<std::size_t>> exactNames_;
  std::vector<std::size_t> scanned_;
  std::map<uid_t, std::string> userNames_;  // for one pass
};

}  // namespace vesk
