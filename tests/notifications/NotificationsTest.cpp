#include <fmt/format.h>
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "foundation/Exception.h"
#include "foundation/Paths.h"
#include "foundation/RunLoop.h"
#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"
#include "notifications/DaemonObserverEndpoint.h"
#include "notifications/DistributedNotificationCenter.h"
#include "notifications/VESKNotificationCenter.h"
#include "platform/ChildProcess.h"

namespace vesk {
namespace {

using Names = std::vector<std::string>;

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}
std::size_t logged(const std::string& what) {
  return count(test::readFile(fsPath("/private/var/log/vesk.log")), what);
}
const std::string kObserverFailed =
    "Exception thrown while trying to send a message to a daemon observer for notification ";

// An observer that answers to one selector and writes down the "k" of each call's userInfo;
// `whenCalled` then runs, if set.
struct RecordingObserver : SelectorTarget {
  explicit RecordingObserver(std::string selector) : selector(std::move(selector)) {}
  bool respondsToSelector(std::string_view name) override {
    ++asked;
    return name == selector;
  }
  void performSelector(std::string_view, const Dictionary& userInfo) override {
    {
      std::lock_guard<std::mutex> hold(lock);
      calls.push_back(userInfo["k"].stringValue());
    }
    if (whenCalled) whenCalled();
  }
  bool wasCalledWith(const std::string& k) {
    std::lock_guard<std::mutex> hold(lock);
    return std::count(calls.begin(), calls.end(), k) > 0;
  }

  const std::string selector;
  std::atomic<int> asked{0};
  std::function<void()> whenCalled;
  std::mutex lock;
  Names calls;  // guarded by lock once other threads call
};

// `vesk-center serve` as a child: the daemon's center in another process, which owns the
// daemon's name once this is made, and has left the bus once this is destroyed.
struct ServingDaemon {
  ServingDaemon() {
    test::pollUntil([&] {
      owner = nameOwner(systemBus(), kDaemonCenterName).value_or("");
      return !owner.empty() || !process->isRunning();
    });
    if (owner.empty()) throw std::runtime_error("vesk-center serve did not take the name");
  }
  ~ServingDaemon() {
    process->terminate();
    test::pollUntil([] { return !nameOwner(systemBus(), kDaemonCenterName).has_value(); });
  }
  // The next post it printed; "" when none came within ten seconds.
  std::string nextLine() {
    if (!test::waitForOutput(*process, printed, "\n")) return "";
    const std::string line = printed.substr(0, printed.find('\n'));
    printed.erase(0, line.size() + 1);
    return line;
  }

  std::unique_ptr<ChildProcess> process = test::startProgram(VESK_CENTER_TOOL, {"serve"});
  std::string owner, printed;
};

// What `vesk-center serve` prints for a post.
std::string served(const std::string& name, const std::string& userInfo = "{}") {
  return fmt::format("{{\"name\":\"{}\",\"userInfo\":{}}}", name, userInfo);
}

// Nobody's call of an agent's observer, made with gdbus, is refused with `error` before it
// reaches the observer; root's is answered.
void expectOnlyRootToReachAnAgent(const std::string& error) {
  auto target = std::make_shared<RecordingObserver>("requestEvent:");
  DaemonObserverEndpoint endpoint(target, "requestEvent:", "request", kDaemonCenterName);
  const std::string self = g_dbus_connection_get_unique_name(systemBus());
  const std::string method = std::string(kDaemonObserverInterface) + ".Perform";
  const std::vector<std::string> arguments = {
      "call",     "--system", "--dest",          self,       "--object-path", endpoint.objectPath(),
      "--method", method,     "'requestEvent:'", "@a{sv} {}"};
  for (const bool nobody : {true, false}) {
    auto caller = nobody ? test::startAsNobody("/usr/bin/gdbus", arguments)
                         : test::startProgram("/usr/bin/gdbus", arguments);
    EXPECT_TRUE(test::pollUntil([&] { return !caller->isRunning(); }));  // this loop answers it
    const std::string said = caller->readOutputToEnd();
    EXPECT_TRUE(nobody ? said.find(error) != std::string::npos : said == "(true,)\n") << said;
    EXPECT_EQ(target->asked.load(), nobody ? 0 : 1);
  }
}

struct Channel : testing::Test {
  void SetUp() override { ::setenv("VESK_ROOT", root_.path().c_str(), 1); }

  test::TemporaryFolder root_;
  test::PrivateBus bus_;
  RunLoop& loop_ = RunLoop::current();
};
using DaemonCenter = Channel;
using Distributed = Channel;

TEST_F(DaemonCenter, DeliversInOrderToEveryRecordDropsAFaultyOneForGoodAndRemovesByIdentity) {
  auto center = VESKNotificationCenter::initForDaemonWithName("com.example.center");
  auto first = std::make_shared<RecordingObserver>("handle:");
  auto deaf = std::make_shared<RecordingObserver>("other:");
  auto faulty = std::make_shared<RecordingObserver>("handle:");
  faulty->whenCalled = [] { throw Exception("NSInvalidArgumentException", "observer failed"); };
  auto last = std::make_shared<RecordingObserver>("handle:");
  for (const auto& observer : {first, deaf, faulty, last, first})  // first twice: called twice
    center->addDaemonObserver(observer, "handle:", "event");
  center->addDaemonObserver(last, "handle:", "elsewhere");

  // The faulty one leaves during the first delivery; the one after it is called all the same.
  center->postNotificationName("event", "ignored object", {{"k", Value("1")}});
  center->postNotificationNameDeliverImmediately("event", std::nullopt, {{"k", Value("2")}}, false);
  center->removeDaemonObserver(first, "event");  // both of its records
  center->removeDaemonObserver(std::make_shared<RecordingObserver>("handle:"), "event");
  center->postNotificationName("event", std::nullopt, {{"k", Value("3")}});
  EXPECT_EQ(first->calls, (Names{"1", "1", "2", "2"}));
  EXPECT_TRUE(deaf->calls.empty());  // it does not answer to the selector
  EXPECT_EQ(faulty->calls, Names{"1"});
  EXPECT_EQ(last->calls, (Names{"1", "2", "3"}));
  EXPECT_EQ(logged(kObserverFailed + "event: observer failed\n"), 1u);
}

TEST(PostPieces, CutLongTextBetweenCharactersOnly) {
  const auto pieces = [](std::string_view text, std::size_t size) {
    return VESKNotificationCenter::piecesForPosting(text, size);
  };
  EXPECT_EQ(pieces("", 4), Names{});
  EXPECT_EQ(pieces("abcdef", 4), (Names{"abcd", "ef"}));
  EXPECT_EQ(pieces("aaa\u00e9b", 4), (Names{"aaa", "\u00e9b"}));  // é: two bytes, kept whole
  EXPECT_EQ(pieces("\U0001F600\U0001F600", 5), (Names{"\U0001F600", "\U0001F600"}));
  EXPECT_EQ(pieces("\xff\xfe\xfd\xfc\xfb", 4), (Names{"\xff\xfe\xfd\xfc", "\xfb"}));  // not UTF-8
}

TEST_F(Channel, CarriesPostsToTheDaemonInAnotherProcessInOrderWithoutWaitingAndEachOnce) {
  ServingDaemon daemon;
  VESKNotificationCenter client;
  // Taken at once while the daemon does not answer: a post that waited would hold up the
  // resume until its time-out, and say so in the log.
  daemon.process->suspend();
  const Value all(Array{Value(std::uint64_t{18446744073709551615ULL}), Value(-1), Value(true),
                        Value(1.5), Value(Data{1, 2, 3}), Value(Dictionary{{"k", Value("x\"y")}}),
                        Value(Error("d", 5, {{"k", Value("v")}}))});
  client.postNotificationName("types", std::nullopt, {{"all", all}});
  daemon.process->resume();
  EXPECT_EQ(daemon.nextLine(), served("types",
                                      "{\"all\":[18446744073709551615,-1,true,1.5,\"AQID\","
                                      "{\"k\":\"x\\\"y\"},{\"domain\":\"d\",\"code\":5,"
                                      "\"userInfo\":{\"k\":\"v\"}}]}"));
  // A peer may send types that the channel does not carry: they are left out.
  g_autoptr(GVariant) reply = callSync(
      systemBus(), daemon.owner, kDaemonCenterPath, kDaemonCenterInterface, "PostNotification",
      g_variant_new_parsed(
          "('odd', '', {'pair': <(1, 2)>, 'intKeys': <{1: 'a'}>, 'ok': <'yes'>}, uint32 0)"),
      nullptr, 10000, nullptr);
  EXPECT_EQ(daemon.nextLine(), served("odd", "{\"ok\":\"yes\"}"));

  // A post the bus would refuse, dropping the connection with it, is never sent. One that the
  // daemon answers too late reaches it, and no second copy follows.
  client.postNotificationName("huge", std::nullopt, {{"blob", Value(Data(kMaxPostBytes, 'x'))}});
  VESKNotificationCenterProxy::setCallTimeout(0.5);
  daemon.process->suspend();
  client.postNotificationName("once", std::nullopt);
  ASSERT_TRUE(VESKNotificationCenter::waitForPosts(10));
  daemon.process->resume();
  client.postNotificationName("after", std::nullopt);
  for (const char* name : {"once", "after"}) EXPECT_EQ(daemon.nextLine(), served(name));
  EXPECT_EQ(logged("Unable to send notification [huge] - the notification is too large ("), 1u);
  EXPECT_EQ(logged("Unable to send notification [once] - Timeout was reached.\n"), 1u);
  EXPECT_EQ(logged("\n"), 2u);
}

TEST_F(Channel, SaysWhyWhenThereIsNoBusOrNoDaemonReachesALateOneAndEndsItWithTheBus) {
  VESKNotificationCenter client;
  // No bus, then no daemon on it: a post named after the address is dropped, and said so once.
  for (const std::string& where : {std::string("unix:path=/nonexistent"), bus_.address()}) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", where.c_str(), 1);
    client.postNotificationName(where, std::nullopt);
    ASSERT_TRUE(VESKNotificationCenter::waitForPosts(10));
    EXPECT_EQ(logged("Unable to send notification [" + where + "] - daemon not available.\n"), 1u);
  }
  EXPECT_EQ(logged("centerFromDaemonWithName failed: "), 2u);
  ServingDaemon late;
  client.postNotificationName("found", std::nullopt);
  EXPECT_EQ(late.nextLine(), served("found"));
  ASSERT_TRUE(VESKNotificationCenter::waitForPosts(10));  // answered before the daemon goes

  // A daemon that loses the bus ends, for its supervisor to start it afresh on the new one.
  bus_.restart();
  ASSERT_TRUE(test::pollUntil([&] { return !late.process->isRunning(); }));
  EXPECT_EQ(late.process->terminationStatus(), kSystemBusLostStatus);
  // The class-level post, which fails with it, says nothing.
  VESKNotificationCenter::postToDefaultCenter("quiet", std::nullopt);
  ASSERT_TRUE(VESKNotificationCenter::waitForPosts(10));
  EXPECT_EQ(logged("\n"), 4u);
}

TEST_F(Channel, DeliversToAnAgentsObserverOnceForEachDaemonOnTheLoopOfTheThreadThatMadeIt) {
  const std::string name = "com.vesksoftware.vesk.veskAgentRequestEvent";
  auto target = std::make_shared<RecordingObserver>("requestEvent:");
  std::jthread agent([&] {  // the main thread's loop does not run meanwhile
    target->whenCalled = [loop = std::this_thread::get_id()] {
      EXPECT_NE(std::this_thread::get_id(), loop);  // a thread of its own
    };
    std::optional<ServingDaemon> daemon{std::in_place};
    DaemonObserverEndpoint endpoint(target, "requestEvent:", name, kDaemonCenterName);
    // The daemon takes a request without waiting for the agent, whose loop does not run until
    // the post has been answered. After a restart the client's first attempt fails.
    auto request = [&](const std::string& k) {
      VESKNotificationCenter().postNotificationName(name, std::nullopt, {{"k", Value(k)}});
      EXPECT_TRUE(VESKNotificationCenter::waitForPosts(10));
      return test::pollUntil([&] { return target->wasCalledWith(k); });
    };
    ASSERT_TRUE(test::pollUntil([&] { return endpoint.registeredOwner() == daemon->owner; }));
    // Registering again, as an agent told it was dropped does, adds no second record.
    VESKNotificationCenter::centerFromDaemon()->addDaemonObserver(endpoint.objectPath(),
                                                                  "requestEvent:", name);
    ASSERT_TRUE(request("Start"));
    ASSERT_TRUE(request("Stop"));
    EXPECT_EQ(target->asked.load(), 2);  // a second record would have had Start again by now

    daemon.reset();  // the daemon restarts
    daemon.emplace();
    ASSERT_TRUE(test::pollUntil([&] { return endpoint.registeredOwner() == daemon->owner; }));
    ASSERT_TRUE(request("Kill"));
    EXPECT_EQ(target->asked.load(), 3);  // registered once with the new daemon
  });
}

TEST_F(Channel, AnAgentDroppedForAnsweringLateRegistersAgainAndLeavesWithItsConnection) {
  auto center = VESKNotificationCenter::initForDaemonWithName(kDaemonCenterName);
  center->setObserverTimeout(0.5);
  ASSERT_TRUE(center->prepareVendingMachine()->isVended());
  // Its loop stops at the first request until told to go on.
  auto agent = test::startProgram(VESK_HELPERS_DIR "/bus_probe", {"observe", "request"}, true);
  auto records = [&] { return center->observersForName("request").size(); };
  ASSERT_TRUE(loop_.runUntilCondition([&] { return records() == 1; }, 10));

  // Both calls fail; the agent is dropped, and told, once.
  center->postNotificationName("request", std::nullopt, {{"k", Value("late")}});
  center->postNotificationName("request", std::nullopt, {{"k", Value("late")}});
  ASSERT_TRUE(loop_.runUntilCondition([&] { return records() == 0; }, 10)) << "never dropped";
  agent->writeInput("go on\n");
  ASSERT_TRUE(loop_.runUntilCondition([&] { return records() == 1; }, 10)) << "never came back";
  center->postNotificationName("request", std::nullopt, {{"k", Value("again")}});
  std::string said;  // read while this loop, which calls the agent, runs
  EXPECT_TRUE(test::pollUntil([&] {
    return agent->readOutputFor(said, 0) && count(said, "performed again\n") == 1;
  })) << said;
  EXPECT_EQ(count(said, "registered\n"), 2u) << said;
  EXPECT_EQ(logged(kObserverFailed + "request: Timeout was reached\n"), 1u);

  agent->terminate();
  EXPECT_TRUE(loop_.runUntilCondition([&] { return records() == 0; }, 10));
}

// That the installed policy keeps other users from the daemon's name and from agents is tried
// end to end (tests/e2e/security.sh); here, the agent's own check behind it.
TEST_F(Channel, RefusesAnotherUsersCallOfAnAgentEvenWhereTheBusLetsItThrough) {
  if (const std::string why = test::whyNobodyCannotRun("/usr/bin/gdbus"); !why.empty())
    GTEST_SKIP() << why;
  // A bus without the client's policy takes the fixture's place (this process has not used
  // that one): anyone may call anyone, and only the client's own check stands in the way.
  const test::PrivateBus open(false);
  expectOnlyRootToReachAnAgent(std::string("GDBus.Error:") + kRefusedError + ": ");
  EXPECT_EQ(logged("(uid 65534): only the daemon or root may send one\n"), 1u);
}

TEST_F(Distributed, TakesRootsAndLocalEventsOnTheObserversThreadButNoOtherUsersOrUnknownSenders) {
  const std::string probe = VESK_HELPERS_DIR "/bus_probe";
  if (const std::string why = test::whyNobodyCannotRun(probe); !why.empty()) GTEST_SKIP() << why;
  auto& center = DistributedNotificationCenter::defaultCenter();
  Names names, byName;
  const auto fromRoot = center.addObserver(
      "from.root", [&](const auto& name, const auto&, const auto&) { byName.push_back(name); });
  center.addObserver(std::nullopt, [&, self = std::this_thread::get_id()](
                                       const auto& name, const auto&, const auto&) {
    EXPECT_EQ(std::this_thread::get_id(), self);
    names.push_back(name);
  });
  // Each sender posts twice on the shared path and once on root's, which the bus keeps for
  // root. Another user, still there to be asked about:
  auto nobody = test::startAsNobody(probe, {"notify", "from.nobody"}, true);
  std::string said, gone;
  ASSERT_TRUE(test::waitForOutput(*nobody, said, "\n")) << said;
  // Root, gone before this thread's loop hears of it ("sent NAME\n"):
  auto root = test::startProgram(probe, {"notify", "from.root"});
  ASSERT_TRUE(test::waitForOutput(*root, gone, "\n") && root->waitUntilExit() == 0) << gone;
  gone = gone.substr(5, gone.size() - 6);
  // Until the bus has forgotten it: each question is a round trip, not a turn of the loop.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (nameOwner(systemBus(), gone) && std::chrono::steady_clock::now() < deadline) continue;
  // Root's too, from a process that ends at once.
  ASSERT_EQ(test::startProgram(VESK_CENTER_TOOL, {"notify", "sentinel"})->waitUntilExit(), 0);
  auto heard = [&](const std::string& name) {
    return loop_.runUntilCondition([&] { return !names.empty() && names.back() == name; }, 10);
  };
  ASSERT_TRUE(heard("sentinel"));
  // Events handed over locally, from any thread, go to the observers of their name.
  std::thread([&] { center.deliverLocally("local", std::nullopt, {}); }).join();
  ASSERT_TRUE(heard("local"));
  center.removeObserver(fromRoot);  // and it hears no more
  center.postNotificationName("from.root", std::nullopt);
  ASSERT_TRUE(heard("from.root"));
  EXPECT_EQ(names, (Names{"from.root", "sentinel", "local", "from.root"}));
  EXPECT_EQ(byName, Names{"from.root"});
  EXPECT_FALSE(center.postNotificationName("huge", std::nullopt,
                                           {{"blob", Value(Data(kMaxPostBytes, 'x'))}}));
  // Said once for each user, the unknown one included, and once for the huge one.
  EXPECT_EQ(logged("(uid 65534): only root and this user may post\n"), 1u);
  EXPECT_EQ(logged("(uid -1): only root and this user may post\n"), 1u);
  EXPECT_EQ(logged("\n"), 3u);
}

}  // namespace
}  // namespace vesk
