#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "logging/VKPolicyLogStorage.h"

namespace vesk {
namespace {

using Events = std::vector<std::string>;

// The store starts charged 690 bytes, and each event costs 23 more than its text.
TEST(PolicyLogStorage, KeepsEventsWithinItsBudgetCuttingTheOneThatCrossesIt) {
  const std::string a100(100, 'a'), a41(41, 'a'), b10(10, 'b'), big(100000, 'x');
  auto summary = [](int budget) {
    return "[Log data was truncated to a max size of " + std::to_string(budget) + " bytes]";
  };
  const std::string e6 = "\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9", e4 = e6.substr(0, 8);
  struct Case {
    std::size_t budget;
    Events added, kept;
    bool stopped;
    std::size_t truncatedEvents, truncatedBytes, total;
  } cases[] = {
      // No budget: every non-empty event whole.
      {0, {"héllo", "", big}, {"héllo", big}, false, 0, 0, 690 + 6 + 23 + 100000 + 23},
      // The event that crosses the budget is cut and summarised; later ones only counted.
      {1000, {a100, a100, a100}, {a100, a100, a41, summary(1000)}, true, 1, 59, 1000},
      {1000, {a100, a100, a100, a100}, {a100, a100, a41, summary(1000)}, true, 2, 159, 1000},
      // Landing exactly on the budget: kept, no summary until the next one.
      {723, {b10}, {b10}, true, 0, 0, 723},
      {723, {b10, "next"}, {b10, summary(723)}, true, 1, 4, 723},
      // Less room left than an event costs: the next vanishes uncounted, the one after counts.
      {738, {"12345", "lost"}, {"12345"}, true, 0, 0, 718},
      {738, {"12345", "lost", "counted"}, {"12345", summary(738)}, true, 1, 7, 718},
      // The room is counted in characters: multi-byte text keeps more bytes than the room.
      {717, {e6}, {e4, summary(717)}, true, 1, 4, 721},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.added.size());
    SCOPED_TRACE(c.budget);
    VKPolicyLogStorage storage;
    storage.setMaxPolicyLogBytes(c.budget);
    for (const std::string& event : c.added) storage.addLogEvent(event);
    EXPECT_EQ(storage.logEvents(), c.kept);
    EXPECT_EQ(storage.stopRecordingEvents(), c.stopped);
    EXPECT_EQ(storage.truncatedEvents(), c.truncatedEvents);
    EXPECT_EQ(storage.truncatedBytes(), c.truncatedBytes);
    EXPECT_EQ(storage.totalLengthOfEvents(), c.total);

    storage.clean();
    EXPECT_TRUE(storage.logEvents().empty());
    EXPECT_EQ(storage.maxPolicyLogBytes(), 0u);
    EXPECT_EQ(storage.totalLengthOfEvents(), 690u);
    EXPECT_FALSE(storage.stopRecordingEvents() || storage.summaryEventAdded());
    EXPECT_EQ(storage.truncatedBytes(), 0u);
  }
}

TEST(PolicyLogStorage, NeverCutsInsideAUserPerceivedCharacter) {
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";  // joined by ZWJ
  struct Case {
    std::string text;
    std::size_t index;
    std::string kept;
  } cases[] = {
      {"abe\u0301cd", 2, "abe\u0301"},  // "e" and a combining accent are one character
      {"x" + family + "y", 1, "x" + family},
      // Indexes count UTF-16 units: the emoji takes two, so index 2 is still inside it.
      {"a\U0001F600bc", 2, "a\U0001F600"},
      {"a\U0001F600bc", 3, "a\U0001F600b"},
      {"h\u00e9llo", 40, "h\u00e9llo"},  // past the end: the whole text
      // A stray byte counts as one character and does not stop the walk.
      {std::string("a\xff") + "bc", 2, std::string("a\xff") + "b"},
  };
  for (const Case& c : cases) EXPECT_EQ(cutAfterCharacterAt(c.text, c.index), c.kept) << c.text;
}

}  // namespace
}  // namespace vesk
