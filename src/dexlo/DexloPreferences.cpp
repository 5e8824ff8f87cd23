#include "dexlo/DexloPreferences.h"

#include <unistd.h>

#include <cerrno>

#include "config/ClientFolders.h"
#include "foundation/FileManager.h"
#include "foundation/Paths.h"
#include "foundation/PropertyList.h"
#include "foundation/StringHelpers.h"
#include "foundation/VESKSystemInformation.h"
#include "logging/VKLogging.h"
#include "networking/VESKHTTPRequest.h"
#include "notifications/DistributedNotificationCenter.h"
#include "platform/ProcessSecurity.h"
#include "platform/Users.h"
#include "task/VKLocalTask.h"

namespace vesk {
namespace {

constexpr const char* kPreferencesFile = "Library/Preferences/com.vesksoftware.dexlo.plist";
constexpr const char* kLastLoggedInUserKey = "LastLoggedInUser";
constexpr const char* kUserLoggedInForFirstTimeKey = "UserLoggedInForFirstTime";
constexpr const char* kBadgeKey = "DexloBadgeNbr";
constexpr const char* kDexloResource = "dexlo2/dxresource/username?uuid={}";
constexpr const char* kNoUserToken = "DEXLO_ERROR_TOKEN";
constexpr mode_t kPreferencesMode = 0755;

}  // namespace

DexloPreferences::DexloPreferences(ConsoleUserLookup consoleUser)
    : consoleUser_(std::move(consoleUser)), localTask_(std::make_unique<VKLocalTask>()) {
  // The home folder and its owner from one lookup, as homeDirectory finds the folder.
  const std::optional<std::string> console = currentConsoleUsername();
  const std::optional<UserAccount> account =
      console ? userAccountNamed(*console) : userAccountForUid(startingUserId());
  if (account) owner_ = Owner{account->uid, account->gid};
  dexloPreferencesPath_ =
      stringByAppendingPathComponent(account ? account->home : "", kPreferencesFile);
}

DexloPreferences::DexloPreferences(std::string path, std::optional<Owner> owner)
    : owner_(owner),
      dexloPreferencesPath_(std::move(path)),
      localTask_(std::make_unique<VKLocalTask>()) {}

std::unique_ptr<DexloPreferences> DexloPreferences::atPath(std::string path) {
  return std::unique_ptr<DexloPreferences>(new DexloPreferences(std::move(path), std::nullopt));
}

DexloPreferences::~DexloPreferences() = default;

// --- Where the file is ---

std::string DexloPreferences::dexloPrefsPath() const {
  return stringByAppendingPathComponent(homeDirectory(), kPreferencesFile);
}

std::string DexloPreferences::homeDirectory() const {
  if (const std::optional<std::string> console = currentConsoleUsername())
    return homeDirectoryForUsername(*console);
  return homeOfUser(startingUserId());
}

std::string DexloPreferences::homeDirectoryForUsername(const std::string& name) {
  const std::optional<UserAccount> account = userAccountNamed(name);
  return account ? account->home : "";
}

std::optional<std::string> DexloPreferences::currentConsoleUsername() const {
  if (!consoleUser_) return std::nullopt;
  return consoleUser_();
}

bool DexloPreferences::asOwner(const std::function<void()>& work) {
  // A user without a home would make the path relative to wherever the agent happens to be.
  if (!dexloPreferencesPath_.starts_with('/')) return false;
  if (!owner_) {
    work();
    return true;
  }
  const ActingAsUser acting(owner_->uid, owner_->gid);
  if (!acting.acting() && ::geteuid() == 0) return false;
  work();
  return true;
}

// --- Reading and writing ---

void DexloPreferences::readPrefs() {
  std::optional<Dictionary> read = mutableDictionaryWithContentsOfFile(dexloPreferencesPath_);
  dexloPlist_ = read ? Value(std::move(*read)) : Value();
}

void DexloPreferences::synchronizePrefs() {
  // A running Dexlo keeps the file's contents in memory; on this platform nothing tells it
  // that another process changed the file, so the agent does, and the app reads it again.
  DistributedNotificationCenter::defaultCenter().postNotificationName(
      "com.vesksoftware.dexlo.preferencesChanged", std::nullopt);
}

Dictionary DexloPreferences::mutableDictionaryFromPrefsFilePath(const std::string& path) {
  std::optional<Dictionary> read = mutableDictionaryWithContentsOfFile(path);
  return read ? std::move(*read) : Dictionary();
}

std::optional<Dictionary> DexloPreferences::mutableDictionaryWithContentsOfFile(
    const std::string& path) {
  Value read;
  asOwner([&] { read = readPropertyListFile(path); });
  if (const Dictionary* dictionary = read.dictionary()) return *dictionary;
  return std::nullopt;
}

bool DexloPreferences::writeDictionary(const Dictionary& dictionary, const std::string& toFile) {
  bool written = false;
  asOwner([&] {
    // A desktop that has never run Dexlo has no such folders yet.
    const std::size_t slash = toFile.rfind('/');
    if (slash != std::string::npos && slash > 0)
      createDirectoryAtPath(toFile.substr(0, slash), FileAttributes{0, 0, kPreferencesMode});
    written = writePropertyListAtomically(toFile, Value(dictionary));
  });
  return written;
}

void DexloPreferences::writePrefData(const Value& value, const std::string& withPrefName,
                                     const std::string& prefsFilePath) {
  Dictionary preferences = mutableDictionaryFromPrefsFilePath(prefsFilePath);
  preferences.set(withPrefName, value);
  writeDictionary(preferences, prefsFilePath);
}

// --- The signed-in user ---

const Value* DexloPreferences::readPref(std::string_view key) {
  readPrefs();
  const Dictionary* preferences = dexloPlist_.dictionary();
  return preferences ? preferences->find(key) : nullptr;
}

void DexloPreferences::writeAndAnnounce(const Dictionary& preferences) {
  writeDictionary(preferences, dexloPreferencesPath_);
  updatePermissions();
  synchronizePrefs();
}

std::optional<std::string> DexloPreferences::lastLoggedInUser() {
  const Value* name = readPref(kLastLoggedInUserKey);
  if (name == nullptr || name->isNil()) return std::nullopt;
  return name->stringValue();
}

bool DexloPreferences::isLastLoggedInUserSetAlready() {
  return readPref(kLastLoggedInUserKey) != nullptr;
}

bool DexloPreferences::userLoggedInForFirstTime() {
  const Value* flag = readPref(kUserLoggedInForFirstTimeKey);
  return flag == nullptr || flag->boolValue();
}

// The writers below change what isLastLoggedInUserSetAlready has just read: the file is read
// once.
void DexloPreferences::writeLastLoggedInUser(const std::string& name) {
  const bool firstTime = !isLastLoggedInUserSetAlready();
  Dictionary preferences = dexloPlist_.dictionary() ? *dexloPlist_.dictionary() : Dictionary();
  if (firstTime) preferences.set(kUserLoggedInForFirstTimeKey, true);
  preferences.set(kLastLoggedInUserKey, name);
  writeAndAnnounce(preferences);
}

void DexloPreferences::clearUserLoggedInForFirstTime() {
  if (!isLastLoggedInUserSetAlready()) return;
  Dictionary preferences = *dexloPlist_.dictionary();
  preferences.set(kUserLoggedInForFirstTimeKey, false);
  writeAndAnnounce(preferences);
}

// --- The badge ---

void DexloPreferences::updateDexloPlistWithBadgeQty(std::int64_t quantity) {
  writePrefData(Value(quantity), kBadgeKey, dexloPreferencesPath_);
  updatePermissions();
  synchronizePrefs();
}

void DexloPreferences::addToDexloPlistBadgeQty(std::int64_t amount) {
  // From the copy in memory, as it stands: whoever lowers the badge has read the file first.
  const Dictionary* preferences = dexloPlist_.dictionary();
  const std::int64_t current = preferences ? (*preferences)[kBadgeKey].integerValue() : 0;
  std::int64_t quantity = 0;
  if (__builtin_add_overflow(current, amount, &quantity))
    quantity = amount < 0 ? INT64_MIN : INT64_MAX;
  updateDexloPlistWithBadgeQty(quantity < 0 ? 0 : quantity);
}

void DexloPreferences::updatePermissions() {
  bool changed = false;
  int failure = 0;
  asOwner([&] {
    changed = setAttributesOfItemAtPath(permissionsDictionaryWithPermissions(kPreferencesMode),
                                        dexloPreferencesPath_);
    failure = errno;
  });
  if (changed) return;
  if (failure == 0) failure = EPERM;
  VKLogging::logEventAndPrintVerbose("Failed to set the attributes of {}: {}",
                                     dexloPreferencesPath_, posixError(failure).description());
}

// --- Asking the server ---

std::string DexloPreferences::dexloUrlFromKsvUrl(const std::string& ksvUrl) {
  std::string url = ksvUrl;
  if (!url.ends_with('/')) url += '/';
  return url + fmt::format(kDexloResource, VESKSystemInformation::hardwareUUID().value_or(""));
}

std::string DexloPreferences::retrieveLoggedInUserWithKsvUrl(const std::string& ksvUrl,
                                                             bool allowInvalidCertificate) {
  const std::string name =
      retrieveLoggedInUserFromAuthUrl(dexloUrlFromKsvUrl(ksvUrl), allowInvalidCertificate);
  // Always: an empty answer clears the name the app remembers.
  writePrefData(Value(name), kLastLoggedInUserKey, dexloPreferencesPath_);
  return name;
}

std::string DexloPreferences::retrieveLoggedInUserFromAuthUrl(const std::string& url,
                                                              bool allowInvalidCertificate) {
  try {
    const std::unique_ptr<VESKHTTPRequest> request = createHttpRequest();
    request->setUrl(url);
    request->setAllowInvalidCert(allowInvalidCertificate);
    const std::shared_ptr<VESKHTTPResponse> response = request->submitRequest();
    return loggedInUsernameFromKsvResponseData(response ? &response->responseData() : nullptr);
  } catch (const std::exception& exception) {
    VKLogging::logEvent("Exception occurred while getting the LDAP user: {}", exception.what());
  }
  return "";
}

std::unique_ptr<VESKHTTPRequest> DexloPreferences::createHttpRequest() {
  return std::make_unique<VESKHTTPRequest>();
}

std::string DexloPreferences::loggedInUsernameFromKsvResponseData(const Data* bytes) {
  if (bytes == nullptr) return "";
  std::string text(bytes->begin(), bytes->end());
  if (!isValidUtf8(text) || text.find(kNoUserToken) != std::string::npos) return "";
  return text;
}

}  // namespace vesk
