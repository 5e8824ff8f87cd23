#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "config/VESKPrefsFile.h"
#include "foundation/Exception.h"
#include "foundation/Paths.h"
#include "foundation/PropertyList.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

std::string plist(const Dictionary& dictionary) { return xmlPropertyList(Value(dictionary)); }

VESKPrefsFile loadedFrom(const std::string& bytes) {
  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.loadPlistData(bytes);
  return prefs;
}

TEST(PrefsFile, ReadsEveryPropertyFromAPropertyList) {
  const VESKPrefsFile prefs =
      loadedFrom(plist({{"ksv_url", Value(" https://ksv.example:8443//  ")},
                        {"allowInvalidCertificate", Value(true)},
                        {"last_management_framework_change_id", Value("42")},
                        {"do_not_upgrade_vesk", Value("YES")},
                        {"do_not_upgrade_dexlo", Value(1)},
                        {"check_ksv_connection_timeout", Value(1)},
                        {"default_connection_timeout", Value("90")},
                        {"dexlo_app_path", Value("/Applications/D")},
                        {"package_validation_level", Value("1")},
                        {"do_not_migrate_vesk", Value(true)},
                        {"max_clock_skew", Value(300)},
                        {"disable_vnc", Value(true)}}));
  EXPECT_EQ(prefs.ksvUrl(), "https://ksv.example:8443/");
  EXPECT_EQ(prefs.lastManagementFrameworkChangeID(), "42");
  EXPECT_TRUE(prefs.allowInvalidCertificate());
  EXPECT_TRUE(prefs.doNotUpgradeVesk());
  EXPECT_TRUE(prefs.doNotUpgradeDexlo());
  EXPECT_EQ(prefs.checkKsvConnectionTimeout(), 1);
  EXPECT_EQ(prefs.defaultConnectionTimeout(), 90);
  EXPECT_EQ(prefs.dexloAppPath(), "/Applications/D");
  EXPECT_EQ(prefs.packageValidationLevel(), "1");
  EXPECT_TRUE(prefs.doNotMigrateVesk());
  EXPECT_EQ(prefs.maxClockSkew(), 300);
  EXPECT_TRUE(prefs.disableScreenShare());
  EXPECT_FALSE(prefs.appendUsersNotInDscl());

  // Time-outs below one, or absent, read as their defaults.
  for (const Dictionary& stored : {Dictionary{}, Dictionary{{"check_ksv_connection_timeout", 0},
                                                            {"default_connection_timeout", -5}}}) {
    EXPECT_EQ(loadedFrom(plist(stored)).checkKsvConnectionTimeout(), 10);
    EXPECT_EQ(loadedFrom(plist(stored)).defaultConnectionTimeout(), 60);
  }
}

TEST(PrefsFile, HonoursBothSpellingsOfTheAppendKeyTheCorrectOneLast) {
  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.loadPlistData(plist({{"append_users_not_in_dcsl", Value(true)}}));
  EXPECT_TRUE(prefs.appendUsersNotInDscl());
  prefs.loadPlistData(plist({}));  // neither: the property keeps what it had
  EXPECT_TRUE(prefs.appendUsersNotInDscl());
  prefs.loadPlistData(plist(
      {{"append_users_not_in_dcsl", Value(true)}, {"append_users_not_in_dscl", Value(false)}}));
  EXPECT_FALSE(prefs.appendUsersNotInDscl());
}

TEST(PrefsFile, GivesBadInputTheAbsentKeyValues) {
  const Dictionary nested{{"a", Value("b")}};
  for (const std::string& bytes :
       {std::string("not a property list {"), xmlPropertyList(Value(Array{Value("x")})),
        plist({{"ksv_url", Value(5)}, {"dexlo_app_path", Value(nested)}}),
        plist({{"ksv_url", Value(nested)}, {"max_clock_skew", Value(nested)}})}) {
    const VESKPrefsFile prefs = loadedFrom(bytes);
    EXPECT_EQ(prefs.ksvUrl(), std::nullopt);
    EXPECT_EQ(prefs.dexloAppPath(), std::nullopt);
    EXPECT_FALSE(prefs.allowInvalidCertificate());
  }
  EXPECT_EQ(loadedFrom("not a property list").maxClockSkew(), -1);
}

TEST(LegacyConfiguration, BuildsTheServerAddressFromItsLines) {
  const std::pair<std::string, std::string> cases[] = {
      {"serverAddress = 10.0.0.5\nserverPort =   \nssl = false\nserverPath = /app//\n",
       "http://10.0.0.5:9006/app/"},
      // The secure default applies only to a securePort line whose value is empty.
      {"serverAddress=10.0.0.5\nssl=true\nserverPath=/app//\n", "https://10.0.0.5:/app/"},
      {"securePort=\nssl=true\nserverAddress=h\n", "https://h:8443/"},
      // Only the exact word "true" turns ssl on.
      {"serverAddress=h\nserverPort=1\nsecurePort=2\nssl = YES\n", "http://h:1/"},
      {"serverAddress=h\nserverPort=1\nsecurePort=2\nssl = 1\n", "http://h:1/"},
      // First matching prefix wins; a further "=" cuts the value.
      {"  serverAddressX = a=b \r\nsslOn = true\nunknown = 1\n", "https://a:/"},
      {"", "http://:/"},
      {"serverAddress 10.0.0.5\nno equals anywhere\n", "http://:/"},
      {"serverAddress=h\xff\xfe\nserverPort=1\n", "http://h\xEF\xBF\xBD\xEF\xBF\xBD:1/"},
  };
  for (const auto& [file, url] : cases)
    EXPECT_EQ(readLegacyConfiguration(file).ksvUrl, url) << file;
  EXPECT_FALSE(readLegacyConfiguration("signedCert = TRUE").signedCertificate);
  EXPECT_TRUE(readLegacyConfiguration("signedCert=true").signedCertificate);

  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.setDexloAppPath("/kept");
  prefs.loadLegacyData("serverAddress=h\n");
  EXPECT_EQ(prefs.ksvUrl(), "http://h:/");
  EXPECT_TRUE(prefs.allowInvalidCertificate());  // no signedCert line: not trusted
  EXPECT_EQ(prefs.maxClockSkew(), -1);
  EXPECT_EQ(prefs.dexloAppPath(), "/kept");  // nothing else is touched
}

class PrefsFileOnDisk : public testing::Test {
 protected:
  void SetUp() override { test::useSandbox(root_.path()); }
  Dictionary written(const std::string& path = kPath) const {
    const Value value = readPropertyListFile(fsPath(path));
    return value.dictionary() ? *value.dictionary() : Dictionary();
  }

  static constexpr const char* kPath = "/Library/Preferences/com.vesksoftware.vesk.plist";
  test::TemporaryFolder root_;
};

TEST_F(PrefsFileOnDisk, LoadsThePropertyListElseTheLegacyFileElseRaises) {
  try {
    VESKPrefsFile prefs;
    FAIL() << "loaded without any file";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "KSV URL Required");
    EXPECT_EQ(e.reason(),
              "The file /Library/Preferences/com.vesksoftware.vesk.plist does not exist. Use the "
              "createConf verb to create it.");
  }
  root_.write("private/etc/vesk.conf", "serverAddress=legacy\nserverPort=1\n");
  EXPECT_EQ(VESKPrefsFile().ksvUrl(), "http://legacy:1/");
  root_.write(std::string(kPath).substr(1), plist({{"ksv_url", Value("https://new")}}));
  EXPECT_EQ(VESKPrefsFile().ksvUrl(), "https://new/");
  EXPECT_EQ(VESKPrefsFile(false).ksvUrl(), std::nullopt);
}

TEST_F(PrefsFileOnDisk, SavesTheKeysThatAreSetAndKeepsTheOthers) {
  root_.write(std::string(kPath).substr(1),
              plist({{"do_not_upgrade_vesk", Value(true)}, {"global_log_level", Value("debug")}}),
              0600);
  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  EXPECT_EQ(prefs.configFilePath(), kPath);
  prefs.setKsvUrl(std::string(" // "));  // no address: neither it nor a certificate policy
  EXPECT_EQ(prefs.ksvUrl(), std::nullopt);
  prefs.setAllowInvalidCertificate(true);
  prefs.setLastManagementFrameworkChangeID("7");
  prefs.setMaxClockSkew(0);
  prefs.setDexloAppPath(" ");
  prefs.setPackageValidationLevel("2");
  prefs.setDisableScreenShare(true);  // never saved
  prefs.savePrefs();
  Dictionary expected{{"do_not_upgrade_vesk", Value(true)},
                      {"global_log_level", Value("debug")},
                      {"last_management_framework_change_id", Value("7")},
                      {"package_validation_level", Value("2")}};
  EXPECT_EQ(written(), expected);

  prefs.setKsvUrl("https://ksv.example/");
  prefs.setMaxClockSkew(-1);
  prefs.savePrefs();
  expected.set("ksv_url", "https://ksv.example/");
  expected.set("allowInvalidCertificate", true);
  expected.set("max_clock_skew", "-1");
  EXPECT_EQ(written(), expected);
  struct stat info {};
  ::stat(fsPath(kPath).c_str(), &info);
  EXPECT_EQ(info.st_mode & 07777, 0644u);
  prefs.writeDoNotUpgradeVESK(false);
  EXPECT_EQ(written()["do_not_upgrade_vesk"], Value(false));

  // An http address gets no certificate policy either; a target redirects the writes.
  VESKPrefsFile other = VESKPrefsFile::withoutLoadingData();
  other.setTarget("/Volumes/Other");
  EXPECT_EQ(other.configFilePath(), "/Volumes/Other" + std::string(kPath));
  std::filesystem::create_directories(fsPath("/Volumes/Other/Library/Preferences"));
  other.setKsvUrl("http://plain");
  other.savePrefs();
  EXPECT_EQ(written(other.configFilePath()), (Dictionary{{"ksv_url", Value("http://plain/")}}));
}

}  // namespace
}  // namespace vesk
