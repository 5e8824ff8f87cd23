#include "restrictions/EnforceRestrictionsAgentStrategy.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <cstdint>

#include "foundation/FileManager.h"
#include "foundation/StringHelpers.h"
#include "logging/VKLogging.h"
#include "platform/Users.h"

namespace vesk {
namespace {

constexpr const char* kPostSelector = "postNotificationToDaemon:userInfo:";

std::vector<std::string_view> components(std::string_view path) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  for (std::size_t slash; (slash = path.find('/', start)) != std::string_view::npos;
       start = slash + 1)
    parts.push_back(path.substr(start, slash - start));
  parts.push_back(path.substr(start));
  return parts;
}

std::string joined(const std::vector<std::string_view>& parts, std::size_t count) {
  std::string path;
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) path += '/';
    path.append(parts[i]);
  }
  return path;
}

// A file name's extension as the platform gives it: after the last ".", unless that dot
// starts the name.
std::string_view extensionOf(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  return name.substr(dot + 1);
}

bool shellMatch(const std::string& pattern, const std::string& subject) {
  return ::fnmatch(pattern.c_str(), subject.c_str(), 0) == 0;
}

}  // namespace

// A path split once per check, with the texts each branch tests made when first needed.
class EnforceRestrictionsAgentStrategy::SplitPath {
 public:
  struct Subject {
    std::string text;
    std::string lower;
  };

  explicit SplitPath(std::optional<std::string_view> path) {
    if (path) parts_ = components(*path);
  }

  std::size_t size() const { return parts_.size(); }

  // The first `count` components joined with "/".
  const Subject& prefix(std::size_t count) {
    if (prefixes_.size() <= count) prefixes_.resize(count + 1);
    std::optional<Subject>& found = prefixes_[count];
    if (!found) {
      std::string text = joined(parts_, count);
      std::string lower = lowercaseString(text);
      found = Subject{std::move(text), std::move(lower)};
    }
    return *found;
  }

  // Each component whole.
  const std::vector<Subject>& wholeComponents() {
    if (!whole_) {
      whole_.emplace();
      for (std::string_view part : parts_)
        whole_->push_back(Subject{std::string(part), lowercaseString(part)});
    }
    return *whole_;
  }

  // The components tested by name, in order: the last one, and each application bundle
  // (without its extension when the match is not exact).
  const std::vector<Subject>& names(bool exact) {
    std::optional<std::vector<Subject>>& names = exact ? exactNames_ : looseNames_;
    if (!names) {
      names.emplace();
      for (std::size_t i = 0; i < parts_.size(); ++i) {
        const std::string_view part = parts_[i];
        const bool bundle = extensionOf(part) == "app";
        if (i + 1 != parts_.size() && !bundle) continue;
        const std::string_view text =
            bundle && !exact ? part.substr(0, part.size() - extensionOf(part).size() - 1) : part;
        names->push_back(Subject{std::string(text), exact ? std::string() : lowercaseString(text)});
      }
    }
    return *names;
  }

 private:
  std::vector<std::string_view> parts_;
  std::vector<std::optional<Subject>> prefixes_;  // by number of components
  std::optional<std::vector<Subject>> whole_;
  std::optional<std::vector<Subject>> exactNames_;
  std::optional<std::vector<Subject>> looseNames_;
};

EnforceRestrictionsAgentStrategy::EnforceRestrictionsAgentStrategy(ProcessTable& table)
    : table_(table) {
  initRestrictionsList();
}

void EnforceRestrictionsAgentStrategy::initRestrictionsList() {
  setBlacklist(BlacklistedSoftwareHelper::loadBlacklistedSoftware());
}

void EnforceRestrictionsAgentStrategy::setBlacklist(Blacklist blacklist) {
  blacklist_ = std::move(blacklist);
  compiled_.clear();
  exactNames_.clear();
  scanned_.clear();
  compiled_.reserve(blacklist_.size());
  for (auto& [key, item] : blacklist_) {
    compiled_.push_back(compile(key, item));
    // An exact name can only match a tested name equal to it: found by lookup, not by scan.
    if (compiled_.back().branch == Branch::kExecutableOrBundleName && item.requireExactMatch()) {
      exactNames_[key].push_back(compiled_.size() - 1);
    } else {
      scanned_.push_back(compiled_.size() - 1);
    }
  }
}

EnforceRestrictionsAgentStrategy::CompiledEntry EnforceRestrictionsAgentStrategy::compile(
    const std::string& key, BlacklistedItem& item) {
  CompiledEntry entry{&key, &item, Branch::kAnyComponent, {}, 0};
  if (key.find('/') != std::string::npos) {
    entry.branch = Branch::kPathPrefix;
    entry.components = components(key).size();
  } else if (key.find(".app") == std::string::npos) {
    entry.branch = Branch::kExecutableOrBundleName;
  }
  if (!item.requireExactMatch()) entry.prepared = preparePattern(key);
  return entry;
}

EnforceRestrictionsAgentStrategy::PreparedPattern EnforceRestrictionsAgentStrategy::preparePattern(
    std::string_view pattern) {
  PreparedPattern prepared;
  prepared.pattern = replaceAll(lowercaseString(pattern), "?", "[?]");
  for (const char* broad : {"*", "*.app", "*.app*", "**.app*", "**"})
    prepared.overBroad = prepared.overBroad || prepared.pattern == broad;

  const std::string& text = prepared.pattern;
  const std::size_t first = text.find_first_not_of('*');
  const std::size_t last = text.find_last_not_of('*');
  if (first == std::string::npos) {
    // Nothing at all matches only nothing; stars alone match anything.
    prepared.kind =
        text.empty() ? PreparedPattern::Kind::kEquals : PreparedPattern::Kind::kContains;
    return prepared;
  }
  std::string literal = text.substr(first, last - first + 1);
  if (literal.find_first_of("*?[\\") != std::string::npos) return prepared;
  const bool leading = first > 0;
  const bool trailing = last + 1 < text.size();
  using Kind = PreparedPattern::Kind;
  prepared.kind = leading && trailing ? Kind::kContains
                  : leading           ? Kind::kSuffix
                  : trailing          ? Kind::kPrefix
                                      : Kind::kEquals;
  prepared.literal = std::move(literal);
  return prepared;
}

bool EnforceRestrictionsAgentStrategy::PreparedPattern::matches(const std::string& lowered) const {
  if (overBroad) return false;
  const std::string_view subject = lowered;
  switch (kind) {
    case Kind::kEquals:
      return subject == literal;
    case Kind::kContains:
      return subject.find(literal) != std::string_view::npos;
    case Kind::kPrefix:
      return subject.substr(0, literal.size()) == literal;
    case Kind::kSuffix:
      return subject.size() >= literal.size() &&
             subject.substr(subject.size() - literal.size()) == literal;
    case Kind::kShellPattern:
      break;
  }
  return shellMatch(pattern, lowered);
}

bool EnforceRestrictionsAgentStrategy::process(std::string_view pattern, std::string_view matches,
                                               bool requireExactMatch) {
  if (requireExactMatch) return pattern == matches;
  return preparePattern(pattern).matches(lowercaseString(matches));
}

bool EnforceRestrictionsAgentStrategy::blacklistProcess(std::string_view pattern,
                                                        const std::optional<std::string>& matches,
                                                        bool requireExactMatch) {
  const std::string key(pattern);
  BlacklistedItem item;
  item.setRequireExactMatch(requireExactMatch);
  SplitPath path(matches);
  return EnforceRestrictionsAgentStrategy::matches(compile(key, item), path);
}

bool EnforceRestrictionsAgentStrategy::matches(const CompiledEntry& entry, SplitPath& path) {
  const bool exact = entry.item->requireExactMatch();
  auto test = [&](const SplitPath::Subject& subject) {
    if (exact) return *entry.key == subject.text;
    return entry.prepared.matches(subject.lower);
  };
  switch (entry.branch) {
    case Branch::kPathPrefix:
      if (entry.components > path.size()) return false;
      return test(path.prefix(entry.components));
    case Branch::kExecutableOrBundleName:
      for (const SplitPath::Subject& name : path.names(exact))
        if (test(name)) return true;
      return false;
    case Branch::kAnyComponent:
      for (const SplitPath::Subject& component : path.wholeComponents())
        if (test(component)) return true;
      return false;
  }
  return false;
}

std::string EnforceRestrictionsAgentStrategy::deletePath(std::string_view path) {
  const std::vector<std::string_view> parts = components(path);
  std::size_t count = 0;
  while (count < parts.size()) {
    const std::string_view part = parts[count++];
    if (part.size() >= 4 && part.substr(part.size() - 4) == ".app") break;
  }
  return joined(parts, count);
}

void EnforceRestrictionsAgentStrategy::checkApplication(const Dictionary& userInfo) {
  const std::string* path = userInfo["NSApplicationPath"].string();
  std::optional<std::string> user;
  if (command_ != nullptr && command_->respondsToSelector("userName")) user = command_->userName();
  ProcessSerialNumber serialNumber;
  serialNumber.lowLongOfPSN = static_cast<std::uint32_t>(
      userInfo["NSApplicationProcessSerialNumberLow"].unsignedIntegerValue());
  serialNumber.highLongOfPSN = static_cast<std::uint32_t>(
      userInfo["NSApplicationProcessSerialNumberHigh"].unsignedIntegerValue());
  // A number that is no pid reads as none, rather than as whatever it wraps to.
  const std::int64_t number = userInfo["NSApplicationProcessIdentifier"].integerValue();
  const pid_t pid = number > 0 && number <= INT32_MAX ? static_cast<pid_t>(number) : 0;
  checkProcessOrApplicationWithAppPath(path ? std::optional<std::string>(*path) : std::nullopt,
                                       user, serialNumber, pid);
}

void EnforceRestrictionsAgentStrategy::checkProcess(const Dictionary& process) {
  const std::string* path = process["path"].string();
  // The uid goes through its text form, so an entry without one reads as uid 0.
  const Value& uidValue = process["uid"];
  const auto uid =
      static_cast<uid_t>(intValue(uidValue.isNil() ? "(null)" : uidValue.stringValue()));
  const auto pid = static_cast<pid_t>(process["pid"].integerValue());
  checkProcessOrApplicationWithAppPath(path ? std::optional<std::string>(*path) : std::nullopt,
                                       userNameForUid(uid).value_or(""), ProcessSerialNumber{},
                                       pid);
}

std::optional<std::string> EnforceRestrictionsAgentStrategy::userNameForUid(uid_t uid) {
  const auto known = userNames_.find(uid);
  if (known != userNames_.end()) return known->second;
  std::string name = vesk::userNameForUid(uid);
  userNames_.emplace(uid, name);
  return name;
}

void EnforceRestrictionsAgentStrategy::checkProcessOrApplicationWithAppPath(
    const std::optional<std::string>& appPath, const std::optional<std::string>& username,
    const ProcessSerialNumber& processSerialNbr, pid_t pid) {
  if (compiled_.empty()) return;
  static const std::string kNoPath;
  enforce(matchingEntries(appPath), appPath ? *appPath : kNoPath, username, processSerialNbr, pid);
}

std::vector<std::size_t> EnforceRestrictionsAgentStrategy::matchingEntries(
    std::optional<std::string_view> appPath) {
  SplitPath path(appPath);
  // The entries that match, handled in the list's order as if each had been tested in turn.
  std::vector<std::size_t> matched;
  for (const std::size_t index : scanned_)
    if (matches(compiled_[index], path)) matched.push_back(index);
  if (!exactNames_.empty()) {
    for (const SplitPath::Subject& name : path.names(true)) {
      const auto found = exactNames_.find(name.text);
      if (found != exactNames_.end())
        matched.insert(matched.end(), found->second.begin(), found->second.end());
    }
    std::sort(matched.begin(), matched.end());
    matched.erase(std::unique(matched.begin(), matched.end()), matched.end());
  }
  return matched;
}

void EnforceRestrictionsAgentStrategy::enforce(const std::vector<std::size_t>& matched,
                                               const std::string& fullPath,
                                               const std::optional<std::string>& username,
                                               const ProcessSerialNumber& processSerialNbr,
                                               pid_t pid) {
  // Made when first needed: it only looks the process up, which changes nothing.
  std::optional<VESKProcessHandler> handler;
  for (const std::size_t index : matched) {
    const CompiledEntry& entry = compiled_[index];
    BlacklistedItem& item = *entry.item;
    const std::string& key = *entry.key;
    // Running even when the user is exempt: the pass must not report it as gone.
    item.setIsRunning(true);
    if (username && item.whitelistedUsers().contains(*username)) continue;
    if (!handler) handler.emplace(pid, processSerialNbr, table_);

    if (item.killApp()) {
      handler->killRunningProcess();
      VKLogging::printlnVerbose("Killed process ({}) for blacklisted '{}'.", fullPath, key);
    }
    if (item.deleteApp()) {
      removeItemAtPath(deletePath(fullPath));
      VKLogging::printlnVerbose("Deleted executable ({}) for blacklisted '{}'.", fullPath, key);
    }
    if (item.killApp() || !item.notified()) {
      notifyDaemonOfBlacklistedProcessWithBlacklistID(integerValue(item.blacklistID().value_or("")),
                                                      key, username, pid, fullPath);
      item.setNotified(true);
    }
    post("com.vesksoftware.vesk.appLaunchingEvent",
         Dictionary{
             {"NSApplicationProcessIdentifier", Value(fmt::format("{}", static_cast<long>(pid)))},
             {"NSApplicationProcessSerialNumberHigh",
              Value(static_cast<unsigned long>(handler->psn().highLongOfPSN))},
             {"NSApplicationProcessSerialNumberLow",
              Value(static_cast<unsigned long>(handler->psn().lowLongOfPSN))},
             {"NSApplicationPath", Value(fullPath)},
             // The full path again, not the name: the daemon has always read it so.
             {"NSApplicationName", Value(fullPath)}});
  }
}

void EnforceRestrictionsAgentStrategy::notifyDaemonOfBlacklistedProcessWithBlacklistID(
    std::int64_t blacklistID, const std::string& process, const std::optional<std::string>& owner,
    pid_t processID, const std::string& appPath) {
  Dictionary userInfo{{"BlacklistID", Value(blacklistID)},
                      {"Process", Value(process)},
                      {"ProcessID", Value(static_cast<long>(processID))},
                      {"AppPath", Value(appPath)}};
  if (owner) userInfo.set("Owner", Value(*owner));
  post("com.vesksoftware.vesk.blacklistEvent", userInfo);
}

void EnforceRestrictionsAgentStrategy::post(const std::string& name, const Dictionary& userInfo) {
  if (command_ != nullptr && command_->respondsToSelector(kPostSelector))
    command_->postNotificationToDaemon(name, userInfo);
}

void EnforceRestrictionsAgentStrategy::fewSecondHandler() {
  const std::vector<ProcessRecord> processes = table_.listExecutables();
  userNames_.clear();  // accounts may change between passes
  for (auto& [key, item] : blacklist_) item.setIsRunning(false);
  if (compiled_.empty()) return;
  // Each process is checked as checkProcess checks its BSDProcessList entry, with the work
  // that cannot change the outcome left out. A path that is not UTF-8 makes an entry without
  // keys, which reads as no path and matches nothing. Many processes run one executable, so
  // a path is matched once per pass; and only a process that matches is worth the look at
  // its owner, whose name decides who is exempt.
  std::unordered_map<std::string_view, std::vector<std::size_t>> matchesByPath;
  for (const ProcessRecord& process : processes) {
    auto known = matchesByPath.find(process.path);
    if (known == matchesByPath.end()) {
      std::vector<std::size_t> matched;
      if (isValidUtf8(process.path)) matched = matchingEntries(process.path);
      known = matchesByPath.emplace(process.path, std::move(matched)).first;
    }
    if (known->second.empty()) continue;
    // Gone, or running something else by now: its new image is checked on its own.
    const std::optional<uid_t> uid = table_.ownerOf(process.pid, process.path);
    if (!uid) continue;
    enforce(known->second, process.path, userNameForUid(*uid).value_or(""), ProcessSerialNumber{},
            process.pid);
  }
  for (auto& [key, item] : blacklist_)
    if (!item.isRunning()) item.setNotified(false);
}

}  // namespace vesk
