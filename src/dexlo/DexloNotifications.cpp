#include "dexlo/DexloNotifications.h"

#include "foundation/Paths.h"
#include "logging/VKLogging.h"
#include "notifications/DistributedNotificationCenter.h"
#include "platform/ApplicationLauncher.h"
#include "platform/ProcessSecurity.h"
#include "restrictions/BSDProcessList.h"

namespace vesk {

DexloNotifications::DexloNotifications(DexloPreferences::ConsoleUserLookup consoleUser)
    : dexloPrefs_(std::make_unique<DexloPreferences>(std::move(consoleUser))) {}

DexloNotifications::DexloNotifications(std::unique_ptr<DexloPreferences> preferences)
    : dexloPrefs_(std::move(preferences)) {}

DexloNotifications::~DexloNotifications() = default;

bool DexloNotifications::isDexloNotification(const Dictionary& userInfo) {
  return userInfo["dexloalert"].boolValue();
}

void DexloNotifications::processDexloNotification(const Dictionary& userInfo) {
  launchDexloIfNotRunning();
  tellDexloAboutNotification(userInfo);
}

void DexloNotifications::launchDexloIfNotRunning() {
  if (!isDexloRunning()) launchDexlo();
}

bool DexloNotifications::isDexloRunning() {
  for (const Value& process : runningProcesses())
    if (processIsDexlo(process)) return true;
  return false;
}

bool DexloNotifications::processIsDexlo(const Value& process) {
  const Dictionary* entry = process.dictionary();
  const std::string* path = entry ? (*entry)["path"].string() : nullptr;
  return path != nullptr && lastPathComponent(*path) == "Dexlo";
}

void DexloNotifications::launchDexlo() {
  if (!launchApplicationWithPath(dexloPath_))
    VKLogging::logEventAndPrintVerbose("Unable to launch Dexlo at {} with a notification.",
                                       dexloPath_);
}

void DexloNotifications::tellDexloAboutNotification(const Dictionary& userInfo) {
  // This object has never read the file, so the count goes down from 0 and is written as 0:
  // after a click the badge shows nothing until the tool counts again.
  dexloPrefs_->addToDexloPlistBadgeQty(-1);
  postNotificationName("com.vesksoftware.dexlo.badgeUpdate", {});
  postNotificationName("com.vesksoftware.dexlo.notificationClicked", userInfo);
}

Array DexloNotifications::runningProcesses() { return BSDProcessList::getProcessList(); }

bool DexloNotifications::launchApplicationWithPath(const std::string& path) {
  return launchApplicationAsUser(path, startingUserId(), startingGroupId());
}

void DexloNotifications::postNotificationName(const std::string& name, const Dictionary& userInfo) {
  DistributedNotificationCenter::defaultCenter().postNotificationName(name, std::nullopt, userInfo);
}

}  // namespace vesk
