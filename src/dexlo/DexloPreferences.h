#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Value.h"

namespace vesk {

class VESKHTTPRequest;
class VKLocalTask;

// The preference file of the Dexlo catalogue app in the home folder of the user at the screen:
// the badge number the app shows, the directory user last signed in to it and whether that
// was a first sign-in; and the management server's answer to which directory user belongs to
// this computer.
//
// The file is the user's: it is read and written with the user's ids, never root's, so that a
// link in the user's folders cannot steer the agent's writes, and the app can still write
// what the agent created. Not for use by two threads at once.
class DexloPreferences {
 public:
  // Who is at the screen; nullopt when no one is.
  using ConsoleUserLookup = std::function<std::optional<std::string>()>;

  // The file of the user that `consoleUser` names, or of this process's user.
  explicit DexloPreferences(ConsoleUserLookup consoleUser = {});
  // The file at `path`, read and written with this process's own ids.
  static std::unique_ptr<DexloPreferences> atPath(std::string path);
  virtual ~DexloPreferences();
  DexloPreferences(const DexloPreferences&) = delete;
  DexloPreferences& operator=(const DexloPreferences&) = delete;

  const std::string& dexloPreferencesPath() const { return dexloPreferencesPath_; }
  // What the file held at the last readPrefs; nil before it, or when there was no file.
  const Value& dexloPlist() const { return dexloPlist_; }

  std::string dexloPrefsPath() const;
  std::string homeDirectory() const;
  // "" when there is no such user.
  static std::string homeDirectoryForUsername(const std::string& name);
  std::optional<std::string> currentConsoleUsername() const;

  void readPrefs();
  // Tells a running Dexlo that the file changed.
  void synchronizePrefs();
  Dictionary mutableDictionaryFromPrefsFilePath(const std::string& path);
  std::optional<Dictionary> mutableDictionaryWithContentsOfFile(const std::string& path);
  bool writeDictionary(const Dictionary& dictionary, const std::string& toFile);
  void writePrefData(const Value& value, const std::string& withPrefName,
                     const std::string& prefsFilePath);

  std::optional<std::string> lastLoggedInUser();
  bool isLastLoggedInUserSetAlready();
  bool userLoggedInForFirstTime();
  void writeLastLoggedInUser(const std::string& name);
  void clearUserLoggedInForFirstTime();
  void updateDexloPlistWithBadgeQty(std::int64_t quantity);
  void addToDexloPlistBadgeQty(std::int64_t amount);
  void updatePermissions();

  static std::string dexloUrlFromKsvUrl(const std::string& ksvUrl);
  std::string retrieveLoggedInUserWithKsvUrl(const std::string& ksvUrl,
                                             bool allowInvalidCertificate);
  std::string retrieveLoggedInUserFromAuthUrl(const std::string& url, bool allowInvalidCertificate);
  virtual std::unique_ptr<VESKHTTPRequest> createHttpRequest();
  static std::string loggedInUsernameFromKsvResponseData(const Data* bytes);

 private:
  struct Owner {
    uid_t uid;
    gid_t gid;
  };
  DexloPreferences(std::string path, std::optional<Owner> owner);

  // Reads the file; the value under `key`, or null.
  const Value* readPref(std::string_view key);
  // Writes the file whole, gives it its mode and tells a running Dexlo.
  void writeAndAnnounce(const Dictionary& preferences);
  // Runs `work` with the ids of the file's owner; false, and nothing run, when this process
  // is root and cannot take them on.
  bool asOwner(const std::function<void()>& work);

  ConsoleUserLookup consoleUser_;
  std::optional<Owner> owner_;  // the user whose home holds the file; none: this process
  std::string dexloPreferencesPath_;
  Value dexloPlist_;
  std::unique_ptr<VKLocalTask> localTask_;  // carried for the app's side; unused here
};

}  // namespace vesk
