#include "config/VESKPrefsFile.h"

#include <fmt/format.h>

#include "config/ClientFolders.h"
#include "foundation/Exception.h"
#include "foundation/FileManager.h"
#include "foundation/Paths.h"
#include "foundation/PropertyList.h"
#include "foundation/StringHelpers.h"

namespace vesk {
namespace {

constexpr const char* kPreferencesPath = "/Library/Preferences/com.vesksoftware.vesk.plist";
constexpr const char* kLegacyPath = "/private/etc/vesk.conf";

bool hasPrefix(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// A string value; anything else, a number or a dictionary included, counts as absent.
std::optional<std::string> stringFor(const Dictionary& preferences, std::string_view key) {
  const std::string* text = preferences[key].string();
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

std::string legacyServerPath(std::string_view value) {
  // Slashes are stripped at the front as well, so that "/app//" joins the port's "/" as
  // "/app/"; whatever is left ends in exactly one.
  std::size_t start = 0;
  while (start < value.size() && value[start] == '/') ++start;
  std::string path = trimTrailingCharacters(value.substr(start), "/");
  if (isEmptyAfterTrim(path)) return "";
  return path + "/";
}

}  // namespace

LegacyConfiguration readLegacyConfiguration(std::string_view bytes) {
  std::string address, serverPort, securePort, serverPath;
  bool ssl = false;
  bool signedCert = false;
  for (const std::string& rawLine : split(makeValidUtf8(bytes), '\n')) {
    const std::string line = strip(rawLine);
    if (line.find('=') == std::string::npos) continue;
    const std::string value = strip(split(line, '=')[1]);
    if (hasPrefix(line, "serverAddress")) {
      address = value;
    } else if (hasPrefix(line, "serverPort")) {
      serverPort = isEmptyAfterTrim(value) ? "9006" : value;
    } else if (hasPrefix(line, "securePort")) {
      securePort = isEmptyAfterTrim(value) ? "8443" : value;
    } else if (hasPrefix(line, "ssl")) {
      ssl = value == "true";
    } else if (hasPrefix(line, "serverPath")) {
      serverPath = legacyServerPath(value);
    } else if (hasPrefix(line, "signedCert")) {
      signedCert = value == "true";
    }
  }
  LegacyConfiguration configuration;
  configuration.ksvUrl = ssl ? fmt::format("https://{}:{}/{}", address, securePort, serverPath)
                             : fmt::format("http://{}:{}/{}", address, serverPort, serverPath);
  configuration.signedCertificate = signedCert;
  return configuration;
}

VESKPrefsFile::VESKPrefsFile(bool loadData) {
  if (loadData) loadPreferencesData();
}

void VESKPrefsFile::loadPreferencesData() {
  const std::string preferences = fsPath(kPreferencesPath);
  const std::string legacy = fsPath(kLegacyPath);
  if (fileExistsAtPath(preferences)) {
    loadPlistData(contentsAtPath(preferences).value_or(""));
  } else if (fileExistsAtPath(legacy)) {
    loadLegacyData(contentsAtPath(legacy).value_or(""));
  } else {
    throw Exception("KSV URL Required",
                    fmt::format("The file {} does not exist. Use the createConf verb to create it.",
                                kPreferencesPath));
  }
}

void VESKPrefsFile::loadPlistData(std::string_view data) {
  const Value parsed = propertyListFromBytes(data);
  static const Dictionary kNoPreferences;
  const Dictionary& prefs = parsed.dictionary() ? *parsed.dictionary() : kNoPreferences;

  setKsvUrl(stringFor(prefs, "ksv_url"));
  lastManagementFrameworkChangeID_ = stringFor(prefs, "last_management_framework_change_id");
  allowInvalidCertificate_ = prefs["allowInvalidCertificate"].boolValue();
  doNotUpgradeVesk_ = prefs["do_not_upgrade_vesk"].boolValue();
  doNotUpgradeDexlo_ = prefs["do_not_upgrade_dexlo"].boolValue();
  checkKsvConnectionTimeout_ = prefs["check_ksv_connection_timeout"].integerValue();
  defaultConnectionTimeout_ = prefs["default_connection_timeout"].integerValue();
  dexloAppPath_ = stringFor(prefs, "dexlo_app_path");
  packageValidationLevel_ = stringFor(prefs, "package_validation_level");
  doNotMigrateVesk_ = prefs["do_not_migrate_vesk"].boolValue();
  const Value* skew = prefs.find("max_clock_skew");
  maxClockSkew_ = skew ? skew->intValue() : -1;
  // Older releases wrote the transposed spelling; it is still honoured, and the correct
  // one, read last, wins when a file has both.
  for (const char* key : {"append_users_not_in_dcsl", "append_users_not_in_dscl"}) {
    if (const Value* append = prefs.find(key)) appendUsersNotInDscl_ = append->boolValue();
  }
  disableScreenShare_ = prefs["disable_vnc"].boolValue();
}

void VESKPrefsFile::loadLegacyData(std::string_view data) {
  const LegacyConfiguration legacy = readLegacyConfiguration(data);
  setKsvUrl(legacy.ksvUrl);
  maxClockSkew_ = -1;
  allowInvalidCertificate_ = !legacy.signedCertificate;
}

std::string VESKPrefsFile::configFilePath() const {
  return stringByAppendingPathComponent(target_, kPreferencesPath);
}

void VESKPrefsFile::setKsvUrl(const std::optional<std::string>& ksvUrl) {
  if (!ksvUrl) {
    ksvUrl_.reset();
    return;
  }
  const std::string url = trimTrailingCharacters(strip(*ksvUrl), "/");
  if (isEmptyAfterTrim(url)) {
    ksvUrl_.reset();
  } else {
    ksvUrl_ = url + "/";
  }
}

void VESKPrefsFile::savePrefs() {
  const std::string path = fsPath(configFilePath());
  auto isSet = [](const std::optional<std::string>& text) {
    return text && !isEmptyAfterTrim(*text);
  };
  if (isSet(ksvUrl_)) defaultsWrapper_.writeStringValue(*ksvUrl_, "ksv_url", path);
  if (lastManagementFrameworkChangeID_)
    defaultsWrapper_.writeStringValue(*lastManagementFrameworkChangeID_,
                                      "last_management_framework_change_id", path);
  if (ksvUrl_ && hasPrefix(*ksvUrl_, "https"))
    defaultsWrapper_.writeBooleanValue(allowInvalidCertificate_, "allowInvalidCertificate", path);
  if (maxClockSkew_ != 0)
    defaultsWrapper_.writeStringValue(fmt::format("{}", maxClockSkew_), "max_clock_skew", path);
  if (isSet(dexloAppPath_))
    defaultsWrapper_.writeStringValue(*dexloAppPath_, "dexlo_app_path", path);
  if (isSet(packageValidationLevel_))
    defaultsWrapper_.writeStringValue(*packageValidationLevel_, "package_validation_level", path);
  (void)setAttributesOfItemAtPath(permissionsDictionaryWithOwner(0, 0, 0644), path);
}

void VESKPrefsFile::writeDoNotUpgradeVESK(bool value) {
  doNotUpgradeVesk_ = value;
  defaultsWrapper_.writeBooleanValue(value, "do_not_upgrade_vesk", fsPath(configFilePath()));
}

}  // namespace vesk
