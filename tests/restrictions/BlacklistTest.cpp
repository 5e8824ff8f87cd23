#include <fnmatch.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"
#include "helpers/TestSupport.h"
#include "restrictions/BlacklistedSoftwareHelper.h"
#include "restrictions/EnforceRestrictionsAgentStrategy.h"

namespace vesk {
namespace {

std::string entry(const std::string& process, const std::string& extra = "") {
  return "<ns2:blacklisted><ns2:id>7</ns2:id><ns2:name>Game</ns2:name><ns2:process>" + process +
         "</ns2:process>" + extra + "</ns2:blacklisted>";
}

std::string document(const std::string& entries) {
  return "<?xml version=\"1.0\"?><ns2:list xmlns:ns2=\"urn:example\"><group>" + entries +
         "</group></ns2:list>";
}

Blacklist load(const std::string& xml) {
  return BlacklistedSoftwareHelper::loadBlacklistedSoftwareFromXMLString(xml);
}

std::vector<std::string> keys(const Blacklist& list) {
  std::vector<std::string> out;
  for (const auto& [key, item] : list) out.push_back(key);
  return out;
}

TEST(RestrictedList, KeysEntriesByTheirFinalPatternTheLaterWinning) {
  const Blacklist list = load(document(
      entry("Safari") + entry("Safari", "<ns2:requireExactMatch>true</ns2:requireExactMatch>") +
      entry("  *.game \n") + entry("Chess", "<ns2:message>first</ns2:message>") +
      entry("*Chess*", "<ns2:message>second</ns2:message>") + entry("   ") + entry("") +
      "<ns2:blacklisted><ns2:id>9</ns2:id></ns2:blacklisted>"));
  EXPECT_EQ(keys(list), (std::vector<std::string>{"*.game", "*Chess*", "*Safari*", "Safari"}));
  EXPECT_EQ(list.at("*Chess*").message(), "second");
  EXPECT_EQ(list.at("Safari").blacklistID(), "7");
}

TEST(RestrictedList, ReadsFlagsByThePlatformsBooleanRuleAndTrimsUsers) {
  const Blacklist list = load(
      document(entry("on", "<ns2:kill> +007</ns2:kill>") + entry("off", "<ns2:kill>no</ns2:kill>") +
               entry("users",
                     "<ns2:whitelistedUsers><ns2:username>  alice\n</ns2:username>"
                     "<ns2:username>bob</ns2:username></ns2:whitelistedUsers>"
                     "<ns2:notify>Y</ns2:notify><ns2:delete>T</ns2:delete>")));
  EXPECT_TRUE(list.at("*on*").killApp());
  EXPECT_FALSE(list.at("*off*").killApp());
  const BlacklistedItem& users = list.at("*users*");
  EXPECT_EQ(users.whitelistedUsers(), (Dictionary{{"alice", Value("")}, {"bob", Value("")}}));
  EXPECT_EQ(
      users.description(),
      "ID: 7\nName: Game\nProcess: *users*\nRequire Exact Match: NO\nMessage: (null)\n"
      "Notify: YES\nKill: NO\nDelete: YES\nWhitelist:{\n    alice = \"\";\n    bob = \"\";\n}");
}

TEST(RestrictedList, TakesOddTextLiterallyAndRefusesWhatIsNotItsXml) {
  const Blacklist odd = load(
      document(entry("[abc") + entry("*") + entry("Tom &amp; Jerry") + entry("<![CDATA[a<b]]>")));
  EXPECT_EQ(keys(odd), (std::vector<std::string>{"*", "*Tom & Jerry*", "*[abc*", "*a<b*"}));

  // An entry's text is its own: entries nested in a process stay entries of their own, and
  // nesting them deeply costs no more than listing them.
  EXPECT_EQ(keys(load(document(entry("Chess" + entry("Go"))))),
            (std::vector<std::string>{"*Chess*", "*Go*"}));
  const std::string open = entry("p"), close = "</ns2:process></ns2:blacklisted>";
  std::string nested;
  for (int i = 0; i < 5000; ++i) nested += open.substr(0, open.size() - close.size());
  for (int i = 0; i < 5000; ++i) nested += close;
  EXPECT_EQ(keys(load(document(nested))), std::vector<std::string>{"*p*"});

  // Entity declarations are neither expanded nor followed to a file.
  const Blacklist declared = load(
      "<?xml version=\"1.0\"?><!DOCTYPE x [<!ENTITY secret SYSTEM \"file:///etc/passwd\">"
      "<!ENTITY word \"Chess\">]><x>" +
      entry("&secret;") + entry("&word;") + "</x>");
  for (const auto& [key, item] : declared) EXPECT_EQ(key.find("root:"), std::string::npos) << key;
  EXPECT_EQ(declared.count("*Chess*"), 0u);

  EXPECT_TRUE(load("").empty());
  EXPECT_TRUE(load("not xml at all <").empty());
  EXPECT_TRUE(load(std::string("\x00\xff\xfe<ns2:blacklisted>", 20)).empty());
}

TEST(RestrictedList, LoadsTheDaemonsFileAndNothingWhenItIsMissingOrNotText) {
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  EXPECT_TRUE(BlacklistedSoftwareHelper::loadBlacklistedSoftware().empty());
  const std::string file = "Library/Application Support/VESK/.blacklist.xml";
  root.write(file, document(entry("Chess")));
  EXPECT_EQ(keys(BlacklistedSoftwareHelper::loadBlacklistedSoftware()),
            std::vector<std::string>{"*Chess*"});
  root.write(file, document(entry("Ch\xff"
                                  "ess")));
  EXPECT_TRUE(BlacklistedSoftwareHelper::loadBlacklistedSoftware().empty());
}

// A pattern compared as text answers as the shell-pattern match would, whatever it holds.
TEST(RestrictedList, PreparedPatternsAnswerAsTheShellMatchWould) {
  const std::string pieces[] = {"*",    "?", "[",  "]",        "!",    "/",
                                ".app", "a", "\\", "\xc3\xa9", "\xff", "b"};
  std::mt19937 random(12345);
  for (int round = 0; round < 20000; ++round) {
    std::string pattern, path;
    for (int i = static_cast<int>(random() % 10); i > 0; --i) pattern += pieces[random() % 12];
    for (int i = static_cast<int>(random() % 14); i > 0; --i) path += pieces[random() % 12];
    const auto prepared = EnforceRestrictionsAgentStrategy::preparePattern(pattern);
    const std::string subject = lowercaseString(path);
    if (prepared.overBroad) continue;
    ASSERT_EQ(prepared.matches(subject),
              ::fnmatch(prepared.pattern.c_str(), subject.c_str(), 0) == 0)
        << "pattern " << pattern << " path " << path;
  }
}

}  // namespace
}  // namespace vesk
