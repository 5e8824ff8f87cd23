#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "foundation/RunLoop.h"
#include "helpers/TestSupport.h"
#include "platform/ChildProcess.h"
#include "platform/FrontWindow.h"

namespace vesk {
namespace {

// One record of an X authority file, for any address ("Wild" family).
std::string authorityRecord(std::string_view number, std::string_view data) {
  std::string record("\xff\xff", 2);
  for (std::string_view field : {std::string_view(), number, {"MIT-MAGIC-COOKIE-1"}, data})
    record.append({static_cast<char>(field.size() >> 8), static_cast<char>(field.size())})
        .append(field);
  return record;
}

std::string cookieFor(std::string_view file, std::string_view number) {
  return xAuthorityFor(file, number).value_or(XAuthority{}).data;
}

TEST(XAuthority, PrefersTheFirstEntryForTheDisplayThenOneForAnyAndTrustsNoCutRecord) {
  const std::string file = authorityRecord("1", "one") + authorityRecord("", "any") +
                           authorityRecord("0", "zero") + authorityRecord("0", "zero again");
  EXPECT_EQ(cookieFor(file, "0"), "zero");
  EXPECT_EQ(cookieFor(file, "7"), "any");
  EXPECT_EQ(cookieFor(authorityRecord("1", "one"), "10"), "");
  // Nothing is trusted in a file that ends inside a record: each cut ends inside a number, or
  // leaves a length that says more than there is.
  const std::string whole = authorityRecord("", "any") + authorityRecord("0", "zero");
  const size_t boundary = authorityRecord("", "any").size();
  for (size_t length = 1; length < whole.size(); ++length)
    EXPECT_EQ(cookieFor(whole.substr(0, length), "0"), length == boundary ? "any" : "") << length;
}

// A private X server accepting one random cookie, on a display number it chose itself.
struct PrivateXServer {
  explicit PrivateXServer(const test::TemporaryFolder& folder) {
    cookie = std::to_string(std::random_device()()) + std::to_string(std::random_device()());
    authority = folder.write("server-authority", authorityRecord("", cookie), 0600).string();
    if (::access("/usr/bin/Xvfb", X_OK) != 0) return;
    // -displayfd prints the number once the server listens.
    ChildProcessPlan plan;
    plan.path = "/usr/bin/Xvfb";
    plan.arguments = {"-displayfd", "1", "-nolisten", "tcp", "-auth", authority};
    plan.output = plan.error = StdioMode::kPipe;
    server = ChildProcess::launch(plan);
    std::string output;
    if (test::waitForOutput(*server, output, "\n")) number = output.substr(0, output.find('\n'));
  }
  ~PrivateXServer() {
    if (server) stop();
  }
  void stop() { server->terminate(), server->waitUntilExit(); }
  std::string display() const { return ":" + number; }

  std::string cookie, authority, number;
  std::unique_ptr<ChildProcess> server;
};

TEST(FrontWindow, AnswersTheFrontWindowsProcessAndCallsBackWhenAnotherComesToTheFront) {
  test::TemporaryFolder folder;
  PrivateXServer server(folder);
  if (server.number.empty()) GTEST_SKIP() << "no Xvfb to run";
  auto client =
      test::startProgram(VESK_HELPERS_DIR "/x11_client",
                         {server.display(), server.authority, std::to_string(getpid())}, true);
  std::string output;
  const auto command = [&](const std::string& line) {
    output.clear();
    return client->writeInput(line + "\n") && test::waitForOutput(*client, output, "done");
  };
  ASSERT_TRUE(test::waitForOutput(*client, output, "done")) << output;

  const std::string authority = authorityRecord(server.number, server.cookie);
  auto front = makeX11FrontWindow(server.display(), folder.write("authority", authority));
  EXPECT_EQ(front->activeProcess(), client->processIdentifier());

  std::vector<std::optional<pid_t>> heard;
  front->watch([&] { heard.push_back(front->activeProcess()); });
  // While the answer is awaited, xcb takes the change off the socket: it must still be heard.
  ASSERT_TRUE(command("none"));
  EXPECT_EQ(front->activeProcess(), std::nullopt);
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return !heard.empty(); }, 10));
  // The same again is no change. Asking the server anything brings its event into xcb's queue
  // first, so that dispatching what is ready then would hear of it for certain.
  ASSERT_TRUE(command("none"));
  front->activeProcess();
  while (g_main_context_iteration(RunLoop::current().context(), FALSE)) continue;
  ASSERT_TRUE(command("second"));
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return heard.size() >= 2; }, 10));
  EXPECT_EQ(heard, (std::vector<std::optional<pid_t>>{std::nullopt, getpid()}));

  // A display that goes away answers nothing from then on, and its hang-up calls nobody.
  server.stop();
  EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return !front->activeProcess(); }, 10));
  while (g_main_context_iteration(RunLoop::current().context(), FALSE)) continue;
  EXPECT_EQ(heard.size(), 2u);
}

TEST(FrontWindow, AnswersNothingWithoutTheDisplaysCookieWhateverTheEnvironmentSays) {
  test::TemporaryFolder folder;
  PrivateXServer server(folder);
  if (server.number.empty()) GTEST_SKIP() << "no Xvfb to run";
  // A set-user-id run's starter chooses the environment; it must never lead to the display.
  ::setenv("DISPLAY", server.display().c_str(), 1);
  ::setenv("XAUTHORITY", server.authority.c_str(), 1);
  const std::string wrong = folder.write("wrong", authorityRecord(server.number, "no")).string();
  const std::pair<std::string, std::string> cases[] = {{server.display(), wrong},
                                                       {server.display(), ""},
                                                       {"", server.authority},
                                                       {server.display(), wrong + "-missing"}};
  for (const auto& [display, authority] : cases) {
    SCOPED_TRACE(display + " " + authority);
    std::string why;
    EXPECT_EQ(makeX11FrontWindow(display, authority, &why)->activeProcess(), std::nullopt);
    EXPECT_NE(why, "");
  }
  ::unsetenv("DISPLAY");
  ::unsetenv("XAUTHORITY");
}

}  // namespace
}  // namespace vesk
