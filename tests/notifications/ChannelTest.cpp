#include <fmt/format.h>
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <thread>

#include "foundation/Paths.h"
#include "foundation/RunLoop.h"
#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"
#include "notifications/BusPeers.h"
#include "notifications/DBusValue.h"
#include "notifications/DaemonObserverEndpoint.h"
#include "notifications/DaemonPresence.h"
#include "notifications/Observers.h"
#include "notifications/VESKNotificationCenter.h"

namespace vesk {
namespace {

using test::RecordingObserver;
using test::ServingDaemon;

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class Channel : public testing::Test {
 protected:
  void SetUp() override { ::setenv("VESK_ROOT", root_.path().c_str(), 1); }
  std::string log() const { return test::readFile(fsPath("/private/var/log/vesk.log")); }

  test::TemporaryFolder root_;
  test::PrivateBus bus_;
};

TEST_F(Channel, CarriesAPostToTheDaemonInAnotherProcessWithItsTypes) {
  ServingDaemon daemon;
  VESKNotificationCenter client;
  client.postNotificationName("com.vesksoftware.vesk.appLaunchingEvent", std::nullopt,
                              {{"pid", Value("412")},
                               {"count", Value(3)},
                               {"big", Value(std::uint64_t{18446744073709551615ULL})},
                               {"flag", Value(true)},
                               {"ratio", Value(1.5)},
                               {"bytes", Value(Data{1, 2, 3})},
                               {"nested", Value(Dictionary{{"inner", Value("x\"y")}})},
                               {"list", Value(Array{Value(1), Value("a")})},
                               {"error", Value(Error("d", 5, {{"k", Value("v")}}))}});
  EXPECT_EQ(daemon.nextLine(),
            "{\"name\":\"com.vesksoftware.vesk.appLaunchingEvent\",\"userInfo\":{"
            "\"big\":18446744073709551615,\"bytes\":\"AQID\",\"count\":3,"
            "\"error\":{\"domain\":\"d\",\"code\":5,\"userInfo\":{\"k\":\"v\"}},\"flag\":true,"
            "\"list\":[1,\"a\"],\"nested\":{\"inner\":\"x\\\"y\"},\"pid\":\"412\",\"ratio\":1.5}}");
  EXPECT_EQ(log(), "");
}

TEST_F(Channel, ReachesARestartedDaemonOnTheSecondAttemptAndSaysOnceWhenThereIsNone) {
  VESKNotificationCenter client;
  {
    ServingDaemon first;
    client.postNotificationName("before", std::nullopt);
    EXPECT_EQ(first.nextLine(), "{\"name\":\"before\",\"userInfo\":{}}");
  }
  {
    ServingDaemon second;  // the handle the client holds names the first, which has gone
    client.postNotificationName("after", std::nullopt);
    EXPECT_EQ(second.nextLine(), "{\"name\":\"after\",\"userInfo\":{}}");
  }
  EXPECT_EQ(log(), "");

  client.postNotificationName("lost", std::nullopt);
  ASSERT_TRUE(VESKNotificationCenter::waitForPosts(10));
  EXPECT_EQ(count(log(), "Unable to send notification [lost] - daemon not available.\n"), 1u);
  EXPECT_EQ(count(log(), "\n"), 1u);
  {
    ServingDaemon late;  // a daemon that starts after the client is found by the next post
    client.postNotificationName("found", std::nullopt);
    EXPECT_EQ(late.nextLine(), "{\"name\":\"found\",\"userInfo\":{}}");
  }

  // The class-level post is silent; an unowned name gives no handle and no message.
  VESKNotificationCenter::postToDefaultCenter("quiet", std::nullopt);
  ASSERT_TRUE(VESKNotificationCenter::waitForPosts(10));
  EXPECT_EQ(VESKNotificationCenter::centerFromDaemonWithName("com.example.nobody"), nullptr);
  EXPECT_EQ(count(log(), "\n"), 1u);
}

TEST_F(Channel, KeepsTheFirstHandleWhateverNameIsAskedForLater) {
  ServingDaemon daemon;
  const auto first = VESKNotificationCenter::defaultCenterForName(kDaemonCenterName);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->owner(), daemon.owner());
  EXPECT_EQ(VESKNotificationCenter::defaultCenterForName("com.example.other"), first);
  EXPECT_EQ(VESKNotificationCenter::defaultCenter(), first);
}

TEST_F(Channel, SaysWhyWhenThereIsNoBusAtAll) {
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
  VESKNotificationCenter().postNotificationName("nowhere", std::nullopt);
  ASSERT_TRUE(VESKNotificationCenter::waitForPosts(10));
  const std::string lines = log();
  EXPECT_EQ(count(lines, "centerFromDaemonWithName failed: "), 2u) << lines;
  EXPECT_EQ(count(lines, "Unable to send notification [nowhere] - daemon not available.\n"), 1u);

  auto tool = test::startProgram(VESK_CENTER_TOOL, {"post", "anything"});
  EXPECT_EQ(tool->readOutputToEnd().rfind("vesk-center: no system bus: ", 0), 0u);
  EXPECT_EQ(tool->waitUntilExit(), 1);
}

TEST_F(Channel, DeliversToAnAgentsObserverOnceForEachDaemonItRegistersWith) {
  RunLoop& loop = RunLoop::current();
  auto target = std::make_shared<RecordingObserver>("agent", "requestEvent:");
  auto daemon = std::make_unique<ServingDaemon>();
  const std::string first = daemon->owner();
  std::vector<std::optional<std::string>> owners;
  DaemonPresence presence(
      [&](const std::optional<std::string>& owner) { owners.push_back(owner); });
  DaemonObserverEndpoint endpoint(
      target, "requestEvent:", "com.vesksoftware.vesk.veskAgentRequestEvent", kDaemonCenterName);
  ASSERT_TRUE(endpoint.isExported());
  ASSERT_TRUE(
      loop.runUntilCondition([&] { return endpoint.registeredOwner() == daemon->owner(); }, 10));

  // Post from a third process; the daemon calls this one, whose loop must run meanwhile.
  auto postRequest = [&](const std::string& command) {
    auto poster = test::startProgram(
        VESK_CENTER_TOOL, {"post", "com.vesksoftware.vesk.veskAgentRequestEvent", "k=" + command});
    EXPECT_TRUE(test::pollUntil([&] { return !poster->isRunning(); }, 20));
    EXPECT_EQ(poster->terminationStatus(), 0) << poster->readOutputToEnd();
  };
  postRequest("Start");
  EXPECT_EQ(target->asked.load(), 1);
  ASSERT_TRUE(test::pollUntil([&] { return target->calls().size() == 1; }));
  EXPECT_NE(target->threads()[0], std::this_thread::get_id());  // a thread of its own

  daemon.reset();  // the daemon restarts
  daemon = std::make_unique<ServingDaemon>();
  ASSERT_TRUE(
      loop.runUntilCondition([&] { return endpoint.registeredOwner() == daemon->owner(); }, 10));
  postRequest("Kill");
  EXPECT_EQ(target->asked.load(), 2);  // registered once with the new daemon, not twice
  ASSERT_TRUE(test::pollUntil([&] { return target->calls().size() == 2; }));
  EXPECT_EQ(target->calls()[1], "agent:Kill");
  // Whoever watches the daemon hears it go and its successor come.
  EXPECT_EQ(owners,
            (std::vector<std::optional<std::string>>{first, std::nullopt, daemon->owner()}));
}

// An observer that posts while it serves the daemon: from the loop that answers the daemon's
// call (which must not wait for the daemon, who is waiting for it) and from the request.
class PostingObserver : public RecordingObserver {
 public:
  using RecordingObserver::RecordingObserver;
  bool respondsToSelector(std::string_view selector) override {
    VESKNotificationCenter().postNotificationName("answer", std::nullopt, {{"k", Value("loop")}});
    return RecordingObserver::respondsToSelector(selector);
  }
  void performSelector(std::string_view selector, const Dictionary& userInfo) override {
    RecordingObserver::performSelector(selector, userInfo);
    VESKNotificationCenter().postNotificationName("answer", std::nullopt, {{"k", Value("run")}});
  }
};

TEST_F(Channel, AnObserverOfAWorkerThreadIsServedThereAndWhatItPostsGoesOutAtOnce) {
  ServingDaemon daemon;
  auto target = std::make_shared<PostingObserver>("worker", "requestEvent:");
  bool served = false;
  std::thread worker([&] {  // the main thread's loop does not run meanwhile
    DaemonObserverEndpoint endpoint(target, "requestEvent:", "request", kDaemonCenterName);
    RunLoop& loop = RunLoop::current();
    if (!loop.runUntilCondition([&] { return endpoint.registeredOwner() == daemon.owner(); }, 10))
      return;
    auto poster = test::startProgram(VESK_CENTER_TOOL, {"post", "request", "k=go"});
    served = test::pollUntil([&] { return target->calls().size() == 1; });
    poster->waitUntilExit();
  });
  worker.join();
  ASSERT_TRUE(served);
  for (const char* k : {"go", "loop", "run"})
    EXPECT_EQ(daemon.nextLine(), fmt::format("{{\"name\":\"{}\",\"userInfo\":{{\"k\":\"{}\"}}}}",
                                             k[0] == 'g' ? "request" : "answer", k));
}

TEST_F(Channel, APostNeverWaitsForTheDaemonAndASlowDaemonGetsItOnce) {
  ServingDaemon daemon;
  VESKNotificationCenter client;
  // A daemon that does not answer: the post is taken at once all the same.
  daemon.process().suspend();
  std::promise<void> posted;
  auto resume = std::async(std::launch::async, [&, done = posted.get_future()] {
    const bool atOnce = done.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    daemon.process().resume();
    return atOnce;
  });
  client.postNotificationName("early", std::nullopt);
  posted.set_value();
  EXPECT_TRUE(resume.get()) << "the post waited for the daemon";
  ASSERT_TRUE(VESKNotificationCenter::waitForPosts(30));

  // One that answers too late has the post, and gets no second copy of it.
  VESKNotificationCenterProxy::setCallTimeout(0.5);
  daemon.process().suspend();
  client.postNotificationName("once", std::nullopt);
  ASSERT_TRUE(VESKNotificationCenter::waitForPosts(10));
  daemon.process().resume();
  client.postNotificationName("sentinel", std::nullopt);
  for (const char* name : {"early", "once", "sentinel"})
    EXPECT_EQ(daemon.nextLine(), fmt::format("{{\"name\":\"{}\",\"userInfo\":{{}}}}", name));
  EXPECT_EQ(count(log(), "Unable to send notification [once] - Timeout was reached.\n"), 1u)
      << log();
}

TEST_F(Channel, AnObserverThatNeverAnswersHoldsUpNoPost) {
  ServingDaemon daemon;
  auto stalled = test::startProgram(VESK_HELPERS_DIR "/bus_probe", {"observe", "request", "stall"});
  std::string said;
  ASSERT_TRUE(test::waitForOutput(*stalled, said, "registered\n")) << said;
  const auto proxy = VESKNotificationCenter::centerFromDaemon();
  ASSERT_NE(proxy, nullptr);
  // Five posts that each wait for the daemon's answer, which waits for no agent.
  auto posts = std::async(std::launch::async, [&] {
    for (int i = 0; i < 5; ++i) proxy->postNotificationNameOptions("request", std::nullopt, {}, 3);
  });
  EXPECT_EQ(posts.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(daemon.nextLine(), "{\"name\":\"request\",\"userInfo\":{}}");
  stalled->terminate();
}

TEST_F(Channel, AnAgentDroppedForAnsweringLateRegistersAgainAndLeavesWithItsConnection) {
  auto center = VESKNotificationCenter::initForDaemonWithName(kDaemonCenterName);
  center->setObserverTimeout(0.5);
  center->prepareVendingMachine();
  ASSERT_TRUE(center->isVended());
  auto agent =
      test::startProgram(VESK_HELPERS_DIR "/bus_probe", {"observe", "request", "stall-once"});
  RunLoop& loop = RunLoop::current();
  auto records = [&] { return center->observersForName("request").size(); };
  ASSERT_TRUE(loop.runUntilCondition([&] { return records() == 1; }, 10));

  center->postNotificationName("request", std::nullopt, {{"k", Value("late")}});
  ASSERT_TRUE(loop.runUntilCondition([&] { return records() == 0; }, 10)) << "never dropped";
  ASSERT_TRUE(loop.runUntilCondition([&] { return records() == 1; }, 10)) << "never came back";
  center->postNotificationName("request", std::nullopt, {{"k", Value("again")}});
  std::string said;  // read while this loop, which calls the agent, runs
  EXPECT_TRUE(loop.runUntilCondition(
      [&] {
        agent->readOutputFor(said, 0);
        return said.find("performed again\n") != std::string::npos;
      },
      10))
      << said;
  EXPECT_EQ(count(said, "registered\n"), 2u) << said;
  EXPECT_EQ(count(log(),
                  "Exception thrown while trying to send a message to a daemon observer "
                  "for notification request: Timeout was reached\n"),
            1u)
      << log();

  agent->terminate();
  EXPECT_TRUE(loop.runUntilCondition([&] { return records() == 0; }, 10));
}

TEST_F(Channel, EveryoneEndsWhenTheBusGoesAwaySoThatTheirSupervisorStartsThemAfresh) {
  ServingDaemon daemon;
  auto agent = test::startProgram(VESK_HELPERS_DIR "/bus_probe", {"observe", "request"});
  std::string said;
  ASSERT_TRUE(test::waitForOutput(*agent, said, "registered\n")) << said;
  bus_.restart();
  for (ChildProcess* process : {&daemon.process(), agent.get()}) {
    ASSERT_TRUE(test::pollUntil([&] { return !process->isRunning(); }));
    EXPECT_EQ(process->terminationStatus(), kSystemBusLostStatus);
  }
}

TEST_F(Channel, DropsAnAgentsObserverThatCanNoLongerBeCalled) {
  ServingDaemon daemon;
  auto target = std::make_shared<RecordingObserver>("agent", "requestEvent:");
  auto endpoint = std::make_unique<DaemonObserverEndpoint>(target, "requestEvent:", "request",
                                                           kDaemonCenterName);
  ASSERT_TRUE(RunLoop::current().runUntilCondition(
      [&] { return endpoint->registeredOwner() == daemon.owner(); }, 10));
  endpoint.reset();  // the agent's object is gone; the daemon still has the record

  VESKNotificationCenter client;
  client.postNotificationName("request", std::nullopt);
  client.postNotificationName("request", std::nullopt);
  client.postNotificationName("sentinel", std::nullopt);
  EXPECT_EQ(daemon.nextLine(), "{\"name\":\"request\",\"userInfo\":{}}");
  EXPECT_EQ(daemon.nextLine(), "{\"name\":\"request\",\"userInfo\":{}}");
  EXPECT_EQ(daemon.nextLine(), "{\"name\":\"sentinel\",\"userInfo\":{}}");
  // The daemon shares this test's log: one failure, then the record was gone.
  const std::string lines = log();
  EXPECT_EQ(count(lines,
                  "Exception thrown while trying to send a message to a daemon observer "
                  "for notification request: "),
            1u)
      << lines;
  EXPECT_TRUE(target->calls().empty());
}

TEST_F(Channel, LetsNoOtherUserOwnTheDaemonsNameOrCallAnAgent) {
  if (const std::string why = test::whyNobodyCannotRun(VESK_CENTER_TOOL); !why.empty())
    GTEST_SKIP() << why;
  auto serving = test::startProgram("/usr/bin/setpriv", [] {
    auto arguments = test::asNobody(VESK_CENTER_TOOL);
    arguments.push_back("serve");
    return arguments;
  }());
  EXPECT_EQ(serving->readOutputToEnd(),
            "Failed to register name (com.vesksoftware.vesk.vesknotificationcenter)\n");
  EXPECT_EQ(serving->waitUntilExit(), 1);

  auto target = std::make_shared<RecordingObserver>("agent", "requestEvent:");
  DaemonObserverEndpoint endpoint(target, "requestEvent:", "request", kDaemonCenterName);
  const std::string self = g_dbus_connection_get_unique_name(systemBus());
  auto call = [&](bool nobody) {
    std::vector<std::string> arguments =
        nobody ? test::asNobody(std::string(VESK_HELPERS_DIR) + "/bus_caller")
               : std::vector<std::string>{};
    for (const std::string& word :
         {std::string("perform"), self, endpoint.objectPath(), std::string("requestEvent:")})
      arguments.push_back(word);
    auto caller = test::startProgram(
        nobody ? "/usr/bin/setpriv" : std::string(VESK_HELPERS_DIR) + "/bus_caller", arguments);
    EXPECT_TRUE(test::pollUntil([&] { return !caller->isRunning(); }, 20));
    return caller->readOutputToEnd();
  };
  EXPECT_NE(call(true).find("AccessDenied"), std::string::npos);
  EXPECT_EQ(target->asked.load(), 0);
  EXPECT_EQ(call(false), "ok\n");  // root may
  EXPECT_EQ(target->asked.load(), 1);
}

TEST_F(Channel, SurvivesWhatAPeerMaySendIt) {
  ServingDaemon daemon;
  GDBusConnection* connection = systemBus();
  auto rawCall = [&](const char* method, GVariant* parameters) {
    std::string why;
    GVariant* reply = callSync(connection, daemon.owner(), kDaemonCenterPath,
                               kDaemonCenterInterface, method, parameters, nullptr, 10000, &why);
    if (reply != nullptr) g_variant_unref(reply);
    return why;
  };
  EXPECT_NE(rawCall("PostNotification", g_variant_new("(s)", "short")), "");
  EXPECT_NE(rawCall("NoSuchMethod", nullptr), "");

  Dictionary many;
  for (int i = 0; i < 10000; ++i) many.set("key" + std::to_string(i), Value(i));
  VESKNotificationCenter().postNotificationName("many", std::nullopt, many);
  const std::string line = daemon.nextLine();
  EXPECT_EQ(line.rfind("{\"name\":\"many\"", 0), 0u);
  EXPECT_NE(line.find("\"key9999\":9999"), std::string::npos);

  // A post the bus would refuse, dropping the connection with it, is never sent.
  VESKNotificationCenter().postNotificationName("huge", std::nullopt,
                                                {{"blob", Value(Data(kMaxPostBytes, 'x'))}});
  ASSERT_TRUE(VESKNotificationCenter::waitForPosts(10));
  EXPECT_EQ(count(log(), "Unable to send notification [huge] - the notification is too large ("),
            1u);

  Dictionary deep{{"leaf", Value("x")}};
  for (int i = 0; i < 20; ++i) deep = Dictionary{{"d", Value(deep)}};
  VESKNotificationCenter().postNotificationName("deep", std::nullopt, deep);
  EXPECT_NE(daemon.nextLine().find("\"leaf\":\"x\""), std::string::npos);

  // Types the channel does not carry are left out; the rest arrives.
  GVariantBuilder odd;
  g_variant_builder_init(&odd, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&odd, "{sv}", "pair", g_variant_new("(ii)", 1, 2));
  g_variant_builder_add(&odd, "{sv}", "intKeys", g_variant_new_parsed("{1: 'a'}"));
  g_variant_builder_add(&odd, "{sv}", "ok", g_variant_new_string("yes"));
  EXPECT_EQ(rawCall("PostNotification", g_variant_new("(ssa{sv}u)", "odd", "", &odd, 0u)), "");
  EXPECT_EQ(daemon.nextLine(), "{\"name\":\"odd\",\"userInfo\":{\"ok\":\"yes\"}}");
}

}  // namespace
}  // namespace vesk
