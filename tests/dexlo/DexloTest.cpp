// The Dexlo preference file, the server's answer for the signed-in user, and what a click on
// a Dexlo notification does.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "dexlo/DexloNotifications.h"
#include "dexlo/DexloPreferences.h"
#include "fakes/FakeDexloNotifications.h"
#include "foundation/PropertyList.h"
#include "foundation/VESKSystemInformation.h"
#include "helpers/TestSupport.h"
#include "networking/TestServers.h"
#include "platform/ApplicationLauncher.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

class Dexlo : public ::testing::Test {
 protected:
  void SetUp() override { test::useSandbox(root.path()); }

  Dictionary stored() const {
    const Value read = readPropertyListFile(file.string());
    return read.dictionary() ? *read.dictionary() : Dictionary();
  }
  std::string log() const { return test::readFile(root.path() / "private/var/log/vesk.log"); }

  test::TemporaryFolder root;
  test::TemporaryFolder home;
  fs::path file = home.path() / "Library/Preferences/com.vesksoftware.dexlo.plist";
};

TEST_F(Dexlo, TheBadgeNeverGoesBelowZeroAndCountsFromWhatWasLastRead) {
  auto preferences = DexloPreferences::atPath(file.string());
  preferences->updateDexloPlistWithBadgeQty(2);
  EXPECT_EQ(fs::status(file).permissions(), fs::perms(0755));
  preferences->readPrefs();
  preferences->addToDexloPlistBadgeQty(-5);
  EXPECT_EQ(stored()["DexloBadgeNbr"], Value(0LL));
  preferences->addToDexloPlistBadgeQty(3);  // still from the 2 it read
  EXPECT_EQ(stored()["DexloBadgeNbr"], Value(5LL));
  // Set outright, a number is written as it is.
  preferences->updateDexloPlistWithBadgeQty(-4);
  EXPECT_EQ(stored()["DexloBadgeNbr"], Value(-4LL));
}

TEST_F(Dexlo, TheFirstSignInIsFlaggedOnceAndClearedOnlyWhenSomeoneSignedIn) {
  auto preferences = DexloPreferences::atPath(file.string());
  EXPECT_TRUE(preferences->userLoggedInForFirstTime());
  preferences->clearUserLoggedInForFirstTime();
  EXPECT_FALSE(fs::exists(file));

  preferences->writeLastLoggedInUser("jdoe");
  EXPECT_EQ(stored(),
            (Dictionary{{"LastLoggedInUser", "jdoe"}, {"UserLoggedInForFirstTime", true}}));
  preferences->clearUserLoggedInForFirstTime();
  EXPECT_FALSE(preferences->userLoggedInForFirstTime());
  preferences->writeLastLoggedInUser("asmith");
  EXPECT_EQ(stored(),
            (Dictionary{{"LastLoggedInUser", "asmith"}, {"UserLoggedInForFirstTime", false}}));
  EXPECT_EQ(preferences->lastLoggedInUser(), "asmith");
}

TEST_F(Dexlo, AsksTheServerForTheUserOfThisComputerAndRemembersTheAnswer) {
  root.write("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
  const std::string uuid = "01234567-89AB-CDEF-0123-456789ABCDEF";
  EXPECT_EQ(DexloPreferences::dexloUrlFromKsvUrl("https://ksv.example/base"),
            "https://ksv.example/base/dexlo2/dxresource/username?uuid=" + uuid);
  EXPECT_EQ(DexloPreferences::dexloUrlFromKsvUrl("https://ksv.example/base/"),
            "https://ksv.example/base/dexlo2/dxresource/username?uuid=" + uuid);

  test::TestCertificates certificates;
  test::TestServer server(&certificates, test::TestServer::Identity::SelfSigned);
  auto preferences = DexloPreferences::atPath(file.string());
  EXPECT_EQ(preferences->retrieveLoggedInUserWithKsvUrl(server.url("/user/jdoe"), true), "jdoe");
  EXPECT_EQ(server.requests().back().get_param_value("uuid"), uuid);
  EXPECT_EQ(stored(), (Dictionary{{"LastLoggedInUser", "jdoe"}}));

  // No user: the name is cleared, the flag left alone.
  EXPECT_EQ(
      preferences->retrieveLoggedInUserWithKsvUrl(server.url("/user/x-DEXLO_ERROR_TOKEN-x"), true),
      "");
  EXPECT_EQ(stored(), (Dictionary{{"LastLoggedInUser", ""}}));

  // A certificate not trusted without the switch, and a server that is not there.
  EXPECT_EQ(preferences->retrieveLoggedInUserWithKsvUrl(server.url("/user/jdoe"), false), "");
  EXPECT_EQ(preferences->retrieveLoggedInUserWithKsvUrl("http://127.0.0.1:1/", false), "");
  EXPECT_EQ(preferences->retrieveLoggedInUserWithKsvUrl(server.url("/" + std::string(1 << 20, 'a')),
                                                        true),
            "");
  EXPECT_NE(log().find("Exception occurred while getting the LDAP user: "), std::string::npos);
}

TEST_F(Dexlo, TheHardwareIdComesFromTheFirmwareWhenItHasOne) {
  root.write("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
  for (const auto& [firmware, id] : std::vector<std::pair<std::string, std::string>>{
           {"00000000-0000-0000-0000-000000000000\n", "01234567-89AB-CDEF-0123-456789ABCDEF"},
           {"4c4c4544-0042-3510-8052-b4c04f4e3732\n", "4C4C4544-0042-3510-8052-B4C04F4E3732"}}) {
    root.write("sys/class/dmi/id/product_uuid", firmware);
    EXPECT_EQ(VESKSystemInformation::hardwareUUID(), id);
  }
}

TEST_F(Dexlo, RootWritesTheFileOfTheUserAtTheScreenOnlyAsThatUser) {
  const passwd* nobody = ::getpwnam("nobody");
  if (::geteuid() != 0 || nobody == nullptr || fs::exists(nobody->pw_dir))
    GTEST_SKIP() << "needs root, and a user nobody without a home";
  DexloPreferences preferences([] { return std::optional<std::string>("nobody"); });
  EXPECT_EQ(preferences.dexloPreferencesPath(),
            std::string(nobody->pw_dir) + "/Library/Preferences/com.vesksoftware.dexlo.plist");
  preferences.updateDexloPlistWithBadgeQty(3);
  EXPECT_FALSE(fs::exists(nobody->pw_dir));
  EXPECT_NE(log().find("Failed to set the attributes of " + preferences.dexloPreferencesPath() +
                       ": Error Domain=NSPOSIXErrorDomain"),
            std::string::npos);
}

TEST_F(Dexlo, AClickStartsDexloUnlessItRunsZeroesTheBadgeAndTellsDexloEitherWay) {
  EXPECT_TRUE(DexloNotifications::isDexloNotification({{"dexloalert", true}}));
  EXPECT_FALSE(DexloNotifications::isDexloNotification({{"policyid", "12"}}));

  const Dictionary click{{"dexloalert", true}, {"title", "New in Dexlo"}};
  const std::vector<std::pair<std::string, Dictionary>> told{
      {"com.vesksoftware.dexlo.badgeUpdate", {}},
      {"com.vesksoftware.dexlo.notificationClicked", click}};
  for (const char* running : {"/opt/Dexlo/Dexlo", "/opt/dexlo/dexlo"}) {
    DexloPreferences::atPath(file.string())->updateDexloPlistWithBadgeQty(4);
    test::DexloRecord record;
    test::FakeDexloNotifications dexlo(file.string(), record);
    dexlo.setDexloPath("/opt/Dexlo.app");
    dexlo.processes = {Value(Dictionary{}), Value(Dictionary{{"path", running}})};
    dexlo.launches = false;
    dexlo.processDexloNotification(click);
    const bool isDexlo = std::string(running) == "/opt/Dexlo/Dexlo";
    EXPECT_EQ(record.launched,
              isDexlo ? std::vector<std::string>{} : std::vector<std::string>{"/opt/Dexlo.app"});
    EXPECT_EQ(log().find("Unable to launch Dexlo at /opt/Dexlo.app with a notification.") ==
                  std::string::npos,
              isDexlo);
    EXPECT_EQ(record.posted, told);
    EXPECT_EQ(stored()["DexloBadgeNbr"], Value(0LL));
  }
}

TEST_F(Dexlo, AnApplicationStartsAsTheUserOutsideTheAgentsFamily) {
  const fs::path record = home.path() / "record";
  // The session is the sixth field of the process's stat line.
  const std::string script =
      "#!/bin/sh\necho \"$(id -u) $(cut -d' ' -f6 /proc/$$/stat)\" >'" + record.string() + "'\n";
  home.write("Viewer.app/Contents/MacOS/Viewer", script, 0755);
  const passwd* nobody = ::getpwnam("nobody");
  const bool asNobody = ::geteuid() == 0 && nobody != nullptr;
  const uid_t uid = asNobody ? nobody->pw_uid : ::getuid();
  if (asNobody) {
    fs::permissions(home.path(), fs::perms(0777));
  }
  EXPECT_TRUE(launchApplicationAsUser((home.path() / "Viewer.app").string(), uid,
                                      asNobody ? nobody->pw_gid : ::getgid()));
  ASSERT_TRUE(
      test::pollUntil([&] { return test::readFile(record).find('\n') != std::string::npos; }));
  const std::string ran = test::readFile(record);
  EXPECT_EQ(ran.substr(0, ran.find(' ')), std::to_string(uid));
  EXPECT_NE(std::stol(ran.substr(ran.find(' ') + 1)), ::getsid(0));
  EXPECT_FALSE(launchApplicationAsUser((home.path() / "Missing").string(), uid, ::getgid()));
}

}  // namespace
}  // namespace vesk
