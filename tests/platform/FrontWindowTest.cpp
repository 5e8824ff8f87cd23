#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "foundation/RunLoop.h"
#include "helpers/TestSupport.h"
#include "platform/ChildProcess.h"
#include "platform/FrontWindow.h"

namespace vesk {
namespace {

using test::TemporaryFolder;

std::string counted(std::string_view field) {
  return std::string{static_cast<char>(field.size() >> 8), static_cast<char>(field.size())} +
         std::string(field);
}

// One record of an X authority file, for any address ("Wild" family).
std::string authorityRecord(std::string_view number, std::string_view data) {
  return std::string("\xff\xff", 2) + counted("") + counted(number) +
         counted("MIT-MAGIC-COOKIE-1") + counted(data);
}

std::optional<std::string> cookieFor(std::string_view file, std::string_view number) {
  const std::optional<XAuthority> found = xAuthorityFor(file, number);
  if (!found) return std::nullopt;
  EXPECT_EQ(found->name, "MIT-MAGIC-COOKIE-1");
  return found->data;
}

TEST(XAuthority, PrefersTheFirstEntryForTheDisplayThenOneForAnyDisplay) {
  const std::string file = authorityRecord("1", "one") + authorityRecord("", "any") +
                           authorityRecord("0", "zero") + authorityRecord("0", "zero again");
  EXPECT_EQ(cookieFor(file, "0"), "zero");
  EXPECT_EQ(cookieFor(file, "1"), "one");
  EXPECT_EQ(cookieFor(file, "7"), "any");
  EXPECT_EQ(cookieFor(authorityRecord("1", "one"), "10"), std::nullopt);
  EXPECT_EQ(cookieFor("", "0"), std::nullopt);
}

TEST(XAuthority, TrustsNothingInAFileThatEndsInsideARecord) {
  // Each cut ends inside a number, or leaves a length that says more than there is.
  const std::string whole = authorityRecord("", "any") + authorityRecord("0", "zero");
  const size_t boundary = authorityRecord("", "any").size();
  for (size_t length = 1; length < whole.size(); ++length)
    EXPECT_EQ(cookieFor(whole.substr(0, length), "0"),
              length == boundary ? std::optional<std::string>("any") : std::nullopt)
        << length;
}

// A private X server accepting one random cookie, on a display number it chose itself.
struct PrivateXServer {
  explicit PrivateXServer(const TemporaryFolder& folder) {
    std::random_device random;
    for (int i = 0; i < 16; ++i) cookie.push_back(static_cast<char>(random()));
    authority = folder.write("server-authority", authorityRecord("", cookie), 0600).string();
    if (::access("/usr/bin/Xvfb", X_OK) != 0) {
      why = "Xvfb is not installed";
      return;
    }
    // -displayfd prints the number once the server listens.
    server = ChildProcess::launch({"/usr/bin/Xvfb",
                                   {"-displayfd", "1", "-nolisten", "tcp", "-auth", authority},
                                   std::nullopt,
                                   StdioMode::kPipe,
                                   StdioMode::kPipe});
    server->closeInput();
    std::string output;
    if (!test::waitForOutput(*server, output, "\n")) why = "Xvfb did not start (see its errors)";
    number = output.substr(0, output.find('\n'));
  }
  ~PrivateXServer() { stop(); }
  void stop() {
    if (!server) return;
    server->terminate();
    server->waitUntilExit();
    server.reset();
  }
  std::string display() const { return ":" + number; }

  std::string cookie, authority, number, why;
  std::unique_ptr<ChildProcess> server;
};

TEST(FrontWindow, AnswersTheFrontWindowsProcessAndCallsBackWhenAnotherComesToTheFront) {
  TemporaryFolder folder;
  PrivateXServer server(folder);
  if (!server.why.empty()) GTEST_SKIP() << server.why;
  auto client =
      test::startProgram(VESK_HELPERS_DIR "/x11_client",
                         {server.display(), server.authority, std::to_string(getpid())}, true);
  std::string output;
  ASSERT_TRUE(test::waitForOutput(*client, output, "ready")) << output;
  const auto command = [&](const std::string& line) {
    output.clear();
    return client->writeInput(line + "\n") && test::waitForOutput(*client, output, "done");
  };

  // Another display's entry comes first, with another cookie.
  const std::string authority = authorityRecord(server.number + "1", "not this one") +
                                authorityRecord(server.number, server.cookie);
  std::string why;
  auto front = makeX11FrontWindow(server.display(), folder.write("authority", authority), &why);
  EXPECT_EQ(why, "");
  EXPECT_EQ(front->activeProcess(), client->processIdentifier());

  std::vector<std::optional<pid_t>> heard;
  front->watch([&] { heard.push_back(front->activeProcess()); });
  ASSERT_TRUE(command("second"));
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return !heard.empty(); }, 10))
      << "no call back for the second window";
  // The same window in front again is no change; leaving none in front is one. The turn in
  // between lets a wrong call back show on its own rather than merge with the right one.
  ASSERT_TRUE(command("second"));
  RunLoop::current().runUntil(0.1);
  ASSERT_TRUE(command("none"));
  // Asking now makes xcb take the change off the socket while it waits for the answer.
  EXPECT_EQ(front->activeProcess(), std::nullopt);
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return heard.size() >= 2; }, 10))
      << "no call back for no window in front";
  EXPECT_EQ(heard, (std::vector<std::optional<pid_t>>{getpid(), std::nullopt}));

  // A display that goes away answers nothing from then on, and its hang-up is harmless.
  client->closeInput();
  client->waitUntilExit();
  server.stop();
  RunLoop::current().runUntil(0.1);
  EXPECT_EQ(front->activeProcess(), std::nullopt);
  EXPECT_EQ(heard.size(), 2u);
}

TEST(FrontWindow, AnswersNothingWithoutTheDisplaysCookieWhateverTheEnvironmentSays) {
  TemporaryFolder folder;
  PrivateXServer server(folder);
  if (!server.why.empty()) GTEST_SKIP() << server.why;
  // What a set-user-id run's starter put in the environment would reach the display, and
  // must not be used.
  ::setenv("DISPLAY", server.display().c_str(), 1);
  ::setenv("XAUTHORITY", server.authority.c_str(), 1);
  const std::string wrong =
      folder.write("wrong", authorityRecord(server.number, "not the cookie")).string();
  const std::pair<std::string, std::string> cases[] = {{server.display(), wrong},
                                                       {server.display(), ""},
                                                       {"", server.authority},
                                                       {server.display(), wrong + "-missing"}};
  for (const auto& [display, authority] : cases) {
    std::string why;
    auto front = makeX11FrontWindow(display, authority, &why);
    EXPECT_EQ(front->activeProcess(), std::nullopt) << display << " " << authority;
    EXPECT_NE(why, "") << display << " " << authority;
    front->watch([] { ADD_FAILURE() << "a display that was not reached called back"; });
  }
  ::unsetenv("DISPLAY");
  ::unsetenv("XAUTHORITY");
}

}  // namespace
}  // namespace vesk
