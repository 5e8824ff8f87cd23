#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "foundation/Paths.h"
#include "foundation/RunLoop.h"
#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"
#include "notifications/BusPeers.h"
#include "notifications/DistributedNotificationCenter.h"
#include "notifications/SystemBus.h"

namespace vesk {
namespace {

struct Received {
  std::string name;
  Dictionary userInfo;
  std::thread::id thread;
};

class Distributed : public testing::Test {
 protected:
  void SetUp() override { ::setenv("VESK_ROOT", root_.path().c_str(), 1); }

  // Posts from another process, as root or as nobody, and waits for it to end.
  void notify(const std::vector<std::string>& words, bool nobody = false) {
    std::vector<std::string> arguments =
        nobody ? test::asNobody(VESK_CENTER_TOOL) : std::vector<std::string>{};
    arguments.push_back("notify");
    arguments.insert(arguments.end(), words.begin(), words.end());
    auto poster =
        test::startProgram(nobody ? "/usr/bin/setpriv" : std::string(VESK_CENTER_TOOL), arguments);
    const std::string said = poster->readOutputToEnd();
    EXPECT_EQ(poster->waitUntilExit(), 0) << said;
  }
  std::string log() const { return test::readFile(fsPath("/private/var/log/vesk.log")); }

  test::TemporaryFolder root_;
  test::PrivateBus bus_;
  DistributedNotificationCenter& center_ = DistributedNotificationCenter::defaultCenter();
};

TEST_F(Distributed, DeliversByNameOrEveryNameOnTheObserversLoopUntilRemoved) {
  std::vector<Received> one, every;
  const auto byName = center_.addObserver(
      "com.vesksoftware.dexlo.badge",
      [&](const std::string& name, const std::optional<std::string>&, const Dictionary& info) {
        one.push_back({name, info, std::this_thread::get_id()});
      });
  center_.addObserver(std::nullopt, [&](const std::string& name, const std::optional<std::string>&,
                                        const Dictionary& info) {
    every.push_back({name, info, std::this_thread::get_id()});
  });

  notify({"com.vesksoftware.dexlo.badge", "count=4", "shown=true", "who=me"});
  notify({"com.vesksoftware.other"});
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return every.size() == 2; }, 10));
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0].userInfo,
            (Dictionary{{"count", Value(4)}, {"shown", Value(true)}, {"who", Value("me")}}));
  EXPECT_EQ(one[0].thread, std::this_thread::get_id());
  EXPECT_EQ(every[1].name, "com.vesksoftware.other");

  center_.removeObserver(byName);
  notify({"com.vesksoftware.dexlo.badge"});
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return every.size() == 3; }, 10));
  EXPECT_EQ(one.size(), 1u);  // signals arrive in order: it would have had this one by now
}

TEST_F(Distributed, HandsLocalEventsToTheObserversOfTheirNameOnTheirOwnThread) {
  std::vector<Received> seen;
  std::mutex lock;
  bool registered = false, done = false;
  RunLoop* observerLoop = nullptr;
  std::thread observerThread([&] {
    RunLoop& loop = RunLoop::current();
    observerLoop = &loop;
    center_.addObserver(
        "com.apple.screenIsLocked",
        [&](const std::string& name, const std::optional<std::string>&, const Dictionary& info) {
          std::lock_guard<std::mutex> hold(lock);
          seen.push_back({name, info, std::this_thread::get_id()});
        });
    {
      std::lock_guard<std::mutex> hold(lock);
      registered = true;
    }
    loop.runUntilCondition(
        [&] {
          std::lock_guard<std::mutex> hold(lock);
          return done;
        },
        10);
  });
  ASSERT_TRUE(test::pollUntil([&] {
    std::lock_guard<std::mutex> hold(lock);
    return registered;
  }));
  center_.deliverLocally("com.apple.screenIsUnlocked", std::nullopt, {});
  center_.deliverLocally("com.apple.screenIsLocked", std::nullopt, {{"k", Value("v")}});
  ASSERT_TRUE(test::pollUntil([&] {
    std::lock_guard<std::mutex> hold(lock);
    return !seen.empty();
  }));
  {
    std::lock_guard<std::mutex> hold(lock);
    done = true;
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].name, "com.apple.screenIsLocked");
    EXPECT_EQ(seen[0].thread, observerThread.get_id());
  }
  observerLoop->post([] {});  // wakes it to see that it is done
  observerThread.join();
}

TEST_F(Distributed, TakesEveryNotificationOfShortLivedRootSendersInOrder) {
  if (::geteuid() != 0) GTEST_SKIP() << "root's senders need root";
  std::vector<std::string> numbers;
  center_.addObserver("from.root",
                      [&](const std::string&, const std::optional<std::string>&,
                          const Dictionary& info) { numbers.push_back(info["i"].stringValue()); });
  for (int i = 0; i < 20; ++i) notify({"from.root", "i=" + std::to_string(i)});  // and ends
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return numbers.size() == 20; }, 10))
      << numbers.size();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(numbers[i], std::to_string(i));
  EXPECT_FALSE(center_.postNotificationName("huge", std::nullopt,
                                            {{"blob", Value(Data(kMaxPostBytes, 'x'))}}));
}

TEST_F(Distributed, DropsWhatAnotherUserPostsAndSaysSoOnce) {
  if (const std::string why = test::whyNobodyCannotRun(VESK_HELPERS_DIR "/bus_caller");
      !why.empty())
    GTEST_SKIP() << why;
  std::vector<std::string> names;
  center_.addObserver(std::nullopt, [&](const std::string& name, const std::optional<std::string>&,
                                        const Dictionary&) { names.push_back(name); });
  // On the shared path, and on the one the bus keeps for root.
  for (const char* path : {kDistributedPath, kDistributedRootPath}) {
    auto nobody = test::startProgram("/usr/bin/setpriv", [&] {
      auto arguments = test::asNobody(std::string(VESK_HELPERS_DIR) + "/bus_caller");
      arguments.insert(arguments.end(), {"notify", "from.nobody", "3", path});
      return arguments;
    }());
    EXPECT_EQ(nobody->readOutputToEnd(), "ok\n");
    EXPECT_EQ(nobody->waitUntilExit(), 0);
  }
  notify({"from.root"});
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return !names.empty(); }, 10));
  EXPECT_EQ(names, std::vector<std::string>{"from.root"});
  // One line for the one sender. Which user it names depends on whether the bus could still
  // say when asked: the sender may have gone by then, and an unknown sender is dropped too.
  const std::string lines = log();
  const std::size_t first = lines.find("Dropped distributed notifications from ");
  ASSERT_NE(first, std::string::npos) << lines;
  EXPECT_EQ(first, lines.rfind("Dropped distributed notifications from "));
  EXPECT_NE(lines.find("): only root and this user may post\n"), std::string::npos) << lines;
}

}  // namespace
}  // namespace vesk
