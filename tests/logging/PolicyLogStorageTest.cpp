#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "logging/VKPolicyLogStorage.h"

namespace vesk {
namespace {

using Events = std::vector<std::string>;

// The store starts charged 690 bytes, and each event costs 23 more than its text.
TEST(PolicyLogStorage, KeepsEventsWithinItsBudgetCuttingTheOneThatCrossesIt) {
  const std::string a100(100, 'a'), b10(10, 'b'), big(100000, 'x');
  const std::string summary = "[Log data was truncated to a max size of ";
  struct Case {
    const char* name;
    std::size_t budget;
    Events added, kept;
    bool stopped;
    std::size_t truncatedEvents, truncatedBytes, total;
  } cases[] = {
      {"no budget: every non-empty event whole",
       0,
       {"héllo", "", big},
       {"héllo", big},
       false,
       0,
       0,
       690 + 6 + 23 + 100000 + 23},
      {"the crossing event cut, then a summary",
       1000,
       {a100, a100, a100},
       {a100, a100, std::string(41, 'a'), summary + "1000 bytes]"},
       true,
       1,
       59,
       1000},
      {"later events only counted",
       1000,
       {a100, a100, a100, a100},
       {a100, a100, std::string(41, 'a'), summary + "1000 bytes]"},
       true,
       2,
       159,
       1000},
      {"landing exactly on the budget: kept, no summary yet", 723, {b10}, {b10}, true, 0, 0, 723},
      {"the next one is summarised",
       723,
       {b10, "next"},
       {b10, summary + "723 bytes]"},
       true,
       1,
       4,
       723},
      {"less room than an event costs: it vanishes uncounted",
       738,
       {"12345", "lost"},
       {"12345"},
       true,
       0,
       0,
       718},
      {"the next one is counted",
       738,
       {"12345", "lost", "counted"},
       {"12345", summary + "738 bytes]"},
       true,
       1,
       7,
       718},
      // The room is counted in characters: multi-byte text keeps more bytes than the room.
      {"cut between characters",
       717,
       {"\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9"},
       {"\u00e9\u00e9\u00e9\u00e9", summary + "717 bytes]"},
       true,
       1,
       4,
       721},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
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
      {"a\xff"
       "bc",
       2,
       "a\xff"
       "b"},  // a stray byte counts as one character and does not stop the walk
  };
  for (const Case& c : cases) EXPECT_EQ(cutAfterCharacterAt(c.text, c.index), c.kept) << c.text;
}

}  // namespace
}  // namespace vesk
