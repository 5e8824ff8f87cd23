#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "foundation/Paths.h"
#include "helpers/TestSupport.h"
#include "notifications/Observers.h"
#include "notifications/VESKNotificationCenter.h"

namespace vesk {
namespace {

using test::RecordingObserver;

class DaemonCenter : public testing::Test {
 protected:
  void SetUp() override { ::setenv("VESK_ROOT", root_.path().c_str(), 1); }
  std::string log() const { return test::readFile(fsPath("/private/var/log/vesk.log")); }

  test::TemporaryFolder root_;
  std::shared_ptr<VESKNotificationCenter> center_ =
      VESKNotificationCenter::initForDaemonWithName("com.example.center");
};

TEST_F(DaemonCenter, DeliversInOrderToEveryRecordAndDropsAFaultyOneForGood) {
  auto first = std::make_shared<RecordingObserver>("first", "handle:");
  auto deaf = std::make_shared<RecordingObserver>("deaf", "other:");
  auto faulty = std::make_shared<RecordingObserver>("faulty", "handle:", true);
  auto last = std::make_shared<RecordingObserver>("last", "handle:");
  std::vector<std::string> order;
  center_->addDaemonObserver(first, "handle:", "event");
  center_->addDaemonObserver(deaf, "handle:", "event");
  center_->addDaemonObserver(faulty, "handle:", "event");
  center_->addDaemonObserver(last, "handle:", "event");
  center_->addDaemonObserver(first, "handle:", "event");  // twice: called twice
  center_->addDaemonObserver(last, "handle:", "elsewhere");

  center_->postNotificationName("event", "ignored object", {{"k", Value("1")}});
  center_->postNotificationNameDeliverImmediately("event", std::nullopt, {{"k", Value("2")}},
                                                  false);

  EXPECT_EQ(first->calls(), (std::vector<std::string>{"first:1", "first:1", "first:2", "first:2"}));
  EXPECT_TRUE(deaf->calls().empty());
  EXPECT_EQ(faulty->calls(), std::vector<std::string>{"faulty:1"});
  EXPECT_EQ(last->calls(), (std::vector<std::string>{"last:1", "last:2"}));
  EXPECT_EQ(center_->observersForName("event").size(), 4u);

  const std::string lines = log();
  const std::string expected =
      "Exception thrown while trying to send a message to a daemon observer for notification "
      "event: observer faulty failed\n";
  ASSERT_NE(lines.find(expected), std::string::npos) << lines;
  EXPECT_EQ(lines.find(expected), lines.rfind(expected));
}

TEST_F(DaemonCenter, RemovesByIdentityAndForgetsANameWithoutObservers) {
  auto one = std::make_shared<RecordingObserver>("one", "handle:");
  auto lookalike = std::make_shared<RecordingObserver>("one", "handle:");
  center_->addDaemonObserver(one, "handle:", "event");
  center_->addDaemonObserver(lookalike, "handle:", "event");
  center_->addDaemonObserver(one, "handle:", "event");

  center_->removeDaemonObserver(std::make_shared<RecordingObserver>("absent", "handle:"), "event");
  center_->removeDaemonObserver(one, "no such name");
  EXPECT_EQ(center_->observersForName("event").size(), 3u);

  center_->removeDaemonObserver(one, "event");  // both of its records
  ASSERT_EQ(center_->observersForName("event").size(), 1u);
  EXPECT_EQ(center_->observersForName("event")[0].first, lookalike);
  center_->removeDaemonObserver(lookalike, "event");
  EXPECT_TRUE(center_->observersForName("event").empty());
  center_->postNotificationName("event", std::nullopt);  // nothing left to call
  EXPECT_TRUE(one->calls().empty() && lookalike->calls().empty());
}

// An observer that removes itself while it is being called.
class LeavingObserver : public RecordingObserver {
 public:
  LeavingObserver(VESKNotificationCenter& center)
      : RecordingObserver("leaving", "handle:"), center_(center) {}
  void performSelector(std::string_view selector, const Dictionary& userInfo) override {
    RecordingObserver::performSelector(selector, userInfo);
    center_.removeDaemonObserver(self.lock(), "event");
  }
  std::weak_ptr<SelectorTarget> self;

 private:
  VESKNotificationCenter& center_;
};

TEST_F(DaemonCenter, LetsAnObserverLeaveDuringDelivery) {
  auto leaving = std::make_shared<LeavingObserver>(*center_);
  leaving->self = leaving;
  auto after = std::make_shared<RecordingObserver>("after", "handle:");
  center_->addDaemonObserver(leaving, "handle:", "event");
  center_->addDaemonObserver(after, "handle:", "event");
  center_->postNotificationName("event", std::nullopt, {{"k", Value("x")}});
  center_->postNotificationName("event", std::nullopt, {{"k", Value("y")}});
  EXPECT_EQ(leaving->calls(), std::vector<std::string>{"leaving:x"});
  // The observer that moved into the leaver's place still gets the post.
  EXPECT_EQ(after->calls(), (std::vector<std::string>{"after:x", "after:y"}));
}

TEST(PostPieces, CutLongTextBetweenCharactersOnly) {
  using Pieces = std::vector<std::string>;
  const auto pieces = [](std::string_view text, std::size_t size) {
    return VESKNotificationCenter::piecesForPosting(text, size);
  };
  EXPECT_EQ(pieces("", 4), Pieces{});
  EXPECT_EQ(pieces("abcdef", 4), (Pieces{"abcd", "ef"}));
  EXPECT_EQ(pieces("aaa\u00e9b", 4), (Pieces{"aaa", "\u00e9b"}));  // é: two bytes, kept whole
  EXPECT_EQ(pieces("\U0001F600\U0001F600", 5), (Pieces{"\U0001F600", "\U0001F600"}));
  EXPECT_EQ(pieces("\xff\xfe\xfd\xfc\xfb", 4), (Pieces{"\xff\xfe\xfd\xfc", "\xfb"}));  // not UTF-8
}

}  // namespace
}  // namespace vesk
