#pragma once

#include <memory>
#include <string>

#include "dexlo/DexloPreferences.h"
#include "foundation/Value.h"

namespace vesk {

// A click on a notification of the Dexlo catalogue app: Dexlo is started when it is not
// running, its badge goes down, and the click is handed to it as distributed notifications.
// One object serves one click.
class DexloNotifications {
 public:
  explicit DexloNotifications(DexloPreferences::ConsoleUserLookup consoleUser = {});
  virtual ~DexloNotifications();

  const std::string& dexloPath() const { return dexloPath_; }
  void setDexloPath(std::string path) { dexloPath_ = std::move(path); }
  DexloPreferences& dexloPrefs() { return *dexloPrefs_; }

  // Whether the clicked notification's user information marks it as Dexlo's.
  static bool isDexloNotification(const Dictionary& userInfo);
  void processDexloNotification(const Dictionary& userInfo);
  void launchDexloIfNotRunning();
  bool isDexloRunning();
  static bool processIsDexlo(const Value& process);
  void launchDexlo();
  void tellDexloAboutNotification(const Dictionary& userInfo);

  // Where the object meets the machine; tests put fakes in their place.
  // The machine's processes, each with "path".
  virtual Array runningProcesses();
  // Starts the application for the user who started this process.
  virtual bool launchApplicationWithPath(const std::string& path);
  virtual void postNotificationName(const std::string& name, const Dictionary& userInfo);

 protected:
  // For tests: the preferences object the click works on.
  explicit DexloNotifications(std::unique_ptr<DexloPreferences> preferences);

 private:
  std::string dexloPath_;
  std::unique_ptr<DexloPreferences> dexloPrefs_;
};

}  // namespace vesk
