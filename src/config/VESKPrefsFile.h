#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "config/VKDefaultsWrapper.h"

namespace vesk {

// What a legacy "/private/etc/vesk.conf" says: the server's address as a URL (not yet
// normalised) and whether its certificate is signed by a trusted authority.
struct LegacyConfiguration {
  std::string ksvUrl;
  bool signedCertificate = false;
};

// Reads the text of a legacy configuration file: "name = value" lines, the first "=" to
// the second giving the value. Bytes that are not UTF-8 read as U+FFFD.
LegacyConfiguration readLegacyConfiguration(std::string_view bytes);

// The machine-wide management preferences: where the management server is, how far to
// trust its certificate, connection time-outs and a few upgrade and behaviour switches.
// They are read from the property list, or from the legacy file on machines that only have
// that, and always written as the property list, key by key through the defaults tool, so
// that keys this class does not write survive.
class VESKPrefsFile {
 public:
  // Loads the preferences; raises "KSV URL Required" when neither file exists.
  VESKPrefsFile() : VESKPrefsFile(true) {}
  explicit VESKPrefsFile(bool loadData);
  static VESKPrefsFile withoutLoadingData() { return VESKPrefsFile(false); }

  // Reads the property list, else the legacy file, always from their fixed places (target
  // redirects writing only); raises "KSV URL Required" when neither exists.
  void loadPreferencesData();
  // Fills the properties from a property list's bytes. Bytes that are no dictionary give
  // every property its absent-key value; a value of the wrong type counts as absent.
  void loadPlistData(std::string_view data);
  // Fills the server address and certificate policy from a legacy file's bytes; nothing
  // else is touched.
  void loadLegacyData(std::string_view data);

  // target with the preferences' path appended: where savePrefs writes (before the client's
  // root is applied).
  std::string configFilePath() const;
  // Writes the properties that are set, one key at a time, then gives the file root, wheel
  // and 0644. Failures are not reported.
  void savePrefs();
  void writeDoNotUpgradeVESK(bool value);

  const std::string& target() const { return target_; }
  void setTarget(std::string target) { target_ = std::move(target); }
  // Always ends in exactly one "/", or is nullopt.
  const std::optional<std::string>& ksvUrl() const { return ksvUrl_; }
  // Trims, strips every trailing "/" and appends one; nothing left stores nullopt.
  void setKsvUrl(const std::optional<std::string>& ksvUrl);
  const std::optional<std::string>& lastManagementFrameworkChangeID() const {
    return lastManagementFrameworkChangeID_;
  }
  void setLastManagementFrameworkChangeID(std::optional<std::string> id) {
    lastManagementFrameworkChangeID_ = std::move(id);
  }
  const std::optional<std::string>& dexloAppPath() const { return dexloAppPath_; }
  void setDexloAppPath(std::optional<std::string> path) { dexloAppPath_ = std::move(path); }
  const std::optional<std::string>& packageValidationLevel() const {
    return packageValidationLevel_;
  }
  void setPackageValidationLevel(std::optional<std::string> level) {
    packageValidationLevel_ = std::move(level);
  }
  std::int64_t maxClockSkew() const { return maxClockSkew_; }
  void setMaxClockSkew(std::int64_t skew) { maxClockSkew_ = skew; }
  bool allowInvalidCertificate() const { return allowInvalidCertificate_; }
  void setAllowInvalidCertificate(bool allow) { allowInvalidCertificate_ = allow; }
  bool doNotUpgradeVesk() const { return doNotUpgradeVesk_; }
  void setDoNotUpgradeVesk(bool value) { doNotUpgradeVesk_ = value; }
  bool doNotUpgradeDexlo() const { return doNotUpgradeDexlo_; }
  void setDoNotUpgradeDexlo(bool value) { doNotUpgradeDexlo_ = value; }
  // The stored value, or 10 when it is below 1.
  std::int64_t checkKsvConnectionTimeout() const {
    return checkKsvConnectionTimeout_ < 1 ? 10 : checkKsvConnectionTimeout_;
  }
  void setCheckKsvConnectionTimeout(std::int64_t seconds) { checkKsvConnectionTimeout_ = seconds; }
  bool appendUsersNotInDscl() const { return appendUsersNotInDscl_; }
  void setAppendUsersNotInDscl(bool value) { appendUsersNotInDscl_ = value; }
  // The stored value, or 60 when it is below 1.
  std::int64_t defaultConnectionTimeout() const {
    return defaultConnectionTimeout_ < 1 ? 60 : defaultConnectionTimeout_;
  }
  void setDefaultConnectionTimeout(std::int64_t seconds) { defaultConnectionTimeout_ = seconds; }
  bool disableScreenShare() const { return disableScreenShare_; }
  void setDisableScreenShare(bool value) { disableScreenShare_ = value; }
  bool doNotMigrateVesk() const { return doNotMigrateVesk_; }
  void setDoNotMigrateVesk(bool value) { doNotMigrateVesk_ = value; }

 private:
  std::string target_;
  std::optional<std::string> ksvUrl_;
  std::optional<std::string> lastManagementFrameworkChangeID_;
  std::optional<std::string> dexloAppPath_;
  std::optional<std::string> packageValidationLevel_;
  // 0 until loaded: a load sets -1 when the file has no limit, and savePrefs writes any
  // value but 0, so an object filled by hand writes no limit unless given one.
  std::int64_t maxClockSkew_ = 0;
  bool allowInvalidCertificate_ = false;
  bool doNotUpgradeVesk_ = false;
  bool doNotUpgradeDexlo_ = false;
  std::int64_t checkKsvConnectionTimeout_ = 0;
  bool appendUsersNotInDscl_ = false;
  std::int64_t defaultConnectionTimeout_ = 0;
  bool disableScreenShare_ = false;
  bool doNotMigrateVesk_ = false;

  VKDefaultsWrapper defaultsWrapper_;
};

}  // namespace vesk
