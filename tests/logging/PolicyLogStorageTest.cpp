#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "logging/VKPolicyLogStorage.h"

namespace vesk {
namespace {

using Events = std::vector<std::string>;

TEST(PolicyLogStorage, WithoutABudgetStoresEveryNonEmptyEventWhole) {
  VKPolicyLogStorage storage;
  EXPECT_EQ(storage.totalLengthOfEvents(), 690u);
  storage.addLogEvent("héllo");  // six bytes
  storage.addLogEvent("");
  storage.addLogEvent(std::string(100000, 'x'));
  EXPECT_EQ(storage.logEvents(), (Events{"héllo", std::string(100000, 'x')}));
  EXPECT_EQ(storage.totalLengthOfEvents(), 690u + 6 + 23 + 100000 + 23);
  EXPECT_FALSE(storage.stopRecordingEvents());
  EXPECT_EQ(storage.truncatedEvents(), 0u);
}

TEST(PolicyLogStorage, CutsTheCrossingEventThenOnlyCountsAndSummarisesOnce) {
  VKPolicyLogStorage storage;
  storage.setMaxPolicyLogBytes(1000);
  const std::string hundred(100, 'a');
  storage.addLogEvent(hundred);  // 813
  storage.addLogEvent(hundred);  // 936
  storage.addLogEvent(hundred);  // 1,059 would exceed: 41 bytes fit
  ASSERT_EQ(storage.logEvents().size(), 4u);
  EXPECT_EQ(storage.logEvents()[2], std::string(41, 'a'));
  EXPECT_EQ(storage.logEvents()[3], "[Log data was truncated to a max size of 1000 bytes]");
  EXPECT_EQ(storage.truncatedEvents(), 1u);
  EXPECT_EQ(storage.truncatedBytes(), 59u);
  EXPECT_EQ(storage.totalLengthOfEvents(), 1000u);  // the summary is not charged
  EXPECT_TRUE(storage.stopRecordingEvents());

  storage.addLogEvent(hundred);
  EXPECT_EQ(storage.logEvents().size(), 4u);
  EXPECT_EQ(storage.truncatedEvents(), 2u);
  EXPECT_EQ(storage.truncatedBytes(), 159u);

  storage.clean();
  EXPECT_TRUE(storage.logEvents().empty());
  EXPECT_EQ(storage.maxPolicyLogBytes(), 0u);
  EXPECT_EQ(storage.totalLengthOfEvents(), 690u);
  EXPECT_FALSE(storage.stopRecordingEvents());
  EXPECT_FALSE(storage.summaryEventAdded());
  EXPECT_EQ(storage.truncatedBytes(), 0u);
}

TEST(PolicyLogStorage, AnEventLandingExactlyOnTheBudgetIsKeptAndStopsRecording) {
  VKPolicyLogStorage storage;
  storage.setMaxPolicyLogBytes(690 + 10 + 23);
  storage.addLogEvent(std::string(10, 'b'));
  EXPECT_EQ(storage.logEvents(), Events{std::string(10, 'b')});
  EXPECT_TRUE(storage.stopRecordingEvents());
  EXPECT_EQ(storage.truncatedEvents(), 0u);  // nothing cut, so no summary yet
  storage.addLogEvent("next");
  EXPECT_EQ(storage.logEvents().back(), "[Log data was truncated to a max size of 723 bytes]");
  EXPECT_EQ(storage.truncatedBytes(), 4u);
}

TEST(PolicyLogStorage, AnEventMeetingAFullBudgetVanishesUncounted) {
  VKPolicyLogStorage storage;
  storage.setMaxPolicyLogBytes(690 + 5 + 23 + 20);
  storage.addLogEvent("12345");  // leaves 20, less than the 23 an event costs: no room
  storage.addLogEvent("lost");
  EXPECT_EQ(storage.logEvents(), Events{"12345"});
  EXPECT_TRUE(storage.stopRecordingEvents());
  EXPECT_EQ(storage.truncatedEvents(), 0u);
  storage.addLogEvent("counted");
  EXPECT_EQ(storage.logEvents(),
            (Events{"12345", "[Log data was truncated to a max size of 738 bytes]"}));
  EXPECT_EQ(storage.truncatedEvents(), 1u);
  EXPECT_EQ(storage.truncatedBytes(), 7u);
}

TEST(PolicyLogStorage, NeverCutsInsideAUserPerceivedCharacter) {
  // "e" and a combining acute accent are one character; so is a family joined by ZWJ.
  EXPECT_EQ(cutAfterCharacterAt("abe\u0301cd", 2), "abe\u0301");
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";
  EXPECT_EQ(cutAfterCharacterAt("x" + family + "y", 1), "x" + family);
  // Indexes count UTF-16 units: the emoji takes two, so index 2 is still inside it.
  EXPECT_EQ(cutAfterCharacterAt("a\U0001F600bc", 2), "a\U0001F600");
  EXPECT_EQ(cutAfterCharacterAt("a\U0001F600bc", 3), "a\U0001F600b");
  // Past the end: the last character, so the whole text.
  EXPECT_EQ(cutAfterCharacterAt("h\u00e9llo", 40), "h\u00e9llo");
  // A stray byte counts as one character and does not stop the walk.
  EXPECT_EQ(cutAfterCharacterAt(std::string("a\xff") + "bc", 2), std::string("a\xff") + "b");

  // Multi-byte text keeps more bytes than the room, since the room is counted as characters.
  VKPolicyLogStorage storage;
  storage.setMaxPolicyLogBytes(690 + 23 + 4);
  storage.addLogEvent("\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9");
  EXPECT_EQ(storage.logEvents().front(), "\u00e9\u00e9\u00e9\u00e9");
  EXPECT_EQ(storage.truncatedBytes(), 4u);
}

}  // namespace
}  // namespace vesk
