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
  const VESKPrefsFile prefs = loadedFrom(plist({
      {"ksv_url", Value(" https://ksv.example:8443//  ")},
      {"last_management_framework_change_id", Value("42")},
      {"allowInvalidCertificate", Value(true)},
      {"do_not_upgrade_vesk", Value("YES")},
      {"do_not_upgrade_dexlo", Value(1)},
      {"check_ksv_connection_timeout", Value(25)},
      {"default_connection_timeout", Value("90")},
      {"dexlo_app_path", Value("/Applications/Dexlo.app")},
      {"package_validation_level", Value("1")},
      {"do_not_migrate_vesk", Value(true)},
      {"max_clock_skew", Value(300)},
      {"disable_vnc", Value(true)},
  }));
  EXPECT_EQ(prefs.ksvUrl(), "https://ksv.example:8443/");
  EXPECT_EQ(prefs.lastManagementFrameworkChangeID(), "42");
  EXPECT_TRUE(prefs.allowInvalidCertificate());
  EXPECT_TRUE(prefs.doNotUpgradeVesk());
  EXPECT_TRUE(prefs.doNotUpgradeDexlo());
  EXPECT_EQ(prefs.checkKsvConnectionTimeout(), 25);
  EXPECT_EQ(prefs.defaultConnectionTimeout(), 90);
  EXPECT_EQ(prefs.dexloAppPath(), "/Applications/Dexlo.app");
  EXPECT_EQ(prefs.packageValidationLevel(), "1");
  EXPECT_TRUE(prefs.doNotMigrateVesk());
  EXPECT_EQ(prefs.maxClockSkew(), 300);
  EXPECT_TRUE(prefs.disableScreenShare());
  EXPECT_FALSE(prefs.appendUsersNotInDscl());
}

TEST(PrefsFile, HonoursBothSpellingsOfTheAppendKeyTheCorrectOneLast) {
  EXPECT_TRUE(
      loadedFrom(plist({{"append_users_not_in_dcsl", Value(true)}})).appendUsersNotInDscl());
  EXPECT_FALSE(loadedFrom(plist({{"append_users_not_in_dcsl", Value(true)},
                                 {"append_users_not_in_dscl", Value(false)}}))
                   .appendUsersNotInDscl());
  // Neither present: the property keeps what it had.
  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.setAppendUsersNotInDscl(true);
  prefs.loadPlistData(plist({}));
  EXPECT_TRUE(prefs.appendUsersNotInDscl());
}

TEST(PrefsFile, ReadsTimeoutsBelowOneAsTheirDefaults) {
  for (const int stored : {0, -5}) {
    const VESKPrefsFile prefs = loadedFrom(plist({{"check_ksv_connection_timeout", Value(stored)},
                                                  {"default_connection_timeout", Value(stored)}}));
    EXPECT_EQ(prefs.checkKsvConnectionTimeout(), 10);
    EXPECT_EQ(prefs.defaultConnectionTimeout(), 60);
  }
  EXPECT_EQ(loadedFrom(plist({})).checkKsvConnectionTimeout(), 10);
  EXPECT_EQ(
      loadedFrom(plist({{"default_connection_timeout", Value(1)}})).defaultConnectionTimeout(), 1);
}

TEST(PrefsFile, GivesBadInputTheAbsentKeyValues) {
  const Dictionary nested{{"a", Value("b")}};
  for (const std::string& bytes :
       {std::string("not a property list {"), std::string("\x00\xff\x01garbage", 10),
        xmlPropertyList(Value(Array{Value("x")})),
        plist({{"ksv_url", Value(5)}, {"dexlo_app_path", Value(nested)}}),
        plist({{"ksv_url", Value(nested)}, {"max_clock_skew", Value(nested)}})}) {
    const VESKPrefsFile prefs = loadedFrom(bytes);
    EXPECT_EQ(prefs.ksvUrl(), std::nullopt);
    EXPECT_EQ(prefs.dexloAppPath(), std::nullopt);
    EXPECT_FALSE(prefs.allowInvalidCertificate());
  }
  EXPECT_EQ(loadedFrom("not a property list").maxClockSkew(), -1);

  // A binary property list reads like any other.
  const std::string binary = binaryPropertyList(
      Value(Dictionary{{"ksv_url", Value("http://a")}, {"disable_vnc", Value(true)}}));
  EXPECT_EQ(loadedFrom(binary).ksvUrl(), "http://a/");
  EXPECT_TRUE(loadedFrom(binary).disableScreenShare());
}

TEST(PrefsFile, NormalisesTheServerAddressToOneTrailingSlash) {
  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.setKsvUrl("https://ksv.example//");
  EXPECT_EQ(prefs.ksvUrl(), "https://ksv.example/");
  for (const char* nothing : {"   ", "///", " // "}) {
    prefs.setKsvUrl(std::string(nothing));
    EXPECT_EQ(prefs.ksvUrl(), std::nullopt) << nothing;
  }
}

TEST(LegacyConfiguration, BuildsTheServerAddressFromItsLines) {
  const std::string plain =
      "serverAddress = 10.0.0.5\nserverPort =   \nssl = false\nserverPath = /app//\n";
  EXPECT_EQ(readLegacyConfiguration(plain).ksvUrl, "http://10.0.0.5:9006/app/");
  // The secure default applies only to a securePort line whose value is empty.
  EXPECT_EQ(readLegacyConfiguration("serverAddress=10.0.0.5\nssl=true\nserverPath=/app//\n").ksvUrl,
            "https://10.0.0.5:/app/");
  EXPECT_EQ(readLegacyConfiguration("securePort=\nssl=true\nserverAddress=h\n").ksvUrl,
            "https://h:8443/");
  // First matching prefix wins; a further "=" cuts the value; "true" must be exact.
  const LegacyConfiguration odd = readLegacyConfiguration(
      "  serverAddressX = a=b \r\nsslOn = true\nsignedCert = TRUE\nunknown = 1\n");
  EXPECT_EQ(odd.ksvUrl, "https://a:/");
  EXPECT_FALSE(odd.signedCertificate);
  EXPECT_TRUE(readLegacyConfiguration("signedCert=true").signedCertificate);
}

TEST(LegacyConfiguration, CopesWithFilesThatSayNothingUseful) {
  EXPECT_EQ(readLegacyConfiguration("").ksvUrl, "http://:/");
  EXPECT_EQ(readLegacyConfiguration("serverAddress 10.0.0.5\nno equals anywhere\n").ksvUrl,
            "http://:/");
  EXPECT_EQ(readLegacyConfiguration("serverAddress=h\xff\xfe\nserverPort=1\n").ksvUrl,
            "http://h\xEF\xBF\xBD\xEF\xBF\xBD:1/");
  std::string many;
  for (int i = 0; i < 10000; ++i) many += "comment line " + std::to_string(i) + " = x\n";
  many += "serverAddress=last\n";
  EXPECT_EQ(readLegacyConfiguration(many).ksvUrl, "http://last:/");

  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.setDexloAppPath("/kept");
  prefs.loadLegacyData("serverAddress=h\n");
  EXPECT_TRUE(prefs.allowInvalidCertificate());  // no signedCert line: not trusted
  EXPECT_EQ(prefs.maxClockSkew(), -1);
  EXPECT_EQ(prefs.dexloAppPath(), "/kept");  // nothing else is touched
}

class PrefsFileOnDisk : public testing::Test {
 protected:
  void SetUp() override { test::useSandbox(root_.path()); }
  Dictionary written() const {
    const Value value = readPropertyListFile(fsPath(kPath));
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
  prefs.setKsvUrl("https://ksv.example/");
  prefs.setAllowInvalidCertificate(false);
  prefs.setMaxClockSkew(-1);
  prefs.setDexloAppPath(" ");
  prefs.setPackageValidationLevel("2");
  prefs.setDisableScreenShare(true);  // never saved
  prefs.savePrefs();

  EXPECT_EQ(written(), (Dictionary{{"ksv_url", Value("https://ksv.example/")},
                                   {"allowInvalidCertificate", Value(false)},
                                   {"max_clock_skew", Value("-1")},
                                   {"package_validation_level", Value("2")},
                                   {"do_not_upgrade_vesk", Value(true)},
                                   {"global_log_level", Value("debug")}}));
  struct stat info {};
  ::stat(fsPath(kPath).c_str(), &info);
  EXPECT_EQ(info.st_mode & 07777, 0644u);

  prefs.writeDoNotUpgradeVESK(false);
  EXPECT_EQ(written()["do_not_upgrade_vesk"], Value(false));
}

TEST_F(PrefsFileOnDisk, SavesNoAddressAndNoCertificatePolicyWithoutAnAddress) {
  VESKPrefsFile prefs = VESKPrefsFile::withoutLoadingData();
  prefs.setKsvUrl(std::string("///"));
  prefs.setAllowInvalidCertificate(true);
  prefs.setLastManagementFrameworkChangeID("7");
  prefs.savePrefs();
  EXPECT_EQ(written(), (Dictionary{{"last_management_framework_change_id", Value("7")}}));

  // An http address gets no certificate policy either; a target redirects the writes.
  VESKPrefsFile other = VESKPrefsFile::withoutLoadingData();
  other.setTarget("/Volumes/Other");
  EXPECT_EQ(other.configFilePath(), "/Volumes/Other" + std::string(kPath));
  std::filesystem::create_directories(fsPath("/Volumes/Other/Library/Preferences"));
  other.setKsvUrl("http://plain");
  other.savePrefs();
  const Value saved = readPropertyListFile(fsPath(other.configFilePath()));
  ASSERT_TRUE(saved.dictionary());
  EXPECT_EQ(*saved.dictionary(), (Dictionary{{"ksv_url", Value("http://plain/")}}));
}

}  // namespace
}  // namespace vesk
