#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "foundation/StringHelpers.h"
#include "helpers/TestSupport.h"
#include "logging/LogFile.h"
#include "logging/VKLogging.h"
#include "logging/VKPolicyLogStorage.h"
#include "task/VKLocalTask.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

std::string testComputerName() { return "office-mac"; }

TEST(LogLine, ReadsDateComputerProgramAndMessageInTheUsersTimeZone) {
  // 1794811318 is Mon Nov 16 06:41:58 2026 UTC.
  struct Case {
    const char* zone;
    std::time_t when;
    const char* date;
  } cases[] = {{"UTC", 1794811318 - 6 * 3600 - 41 * 60, "Mon Nov 16 00:00:58"},
               {"UTC", 1794811318 - 10 * 86400, "Fri Nov 06 06:41:58"},
               {"America/New_York", 1794811318, "Mon Nov 16 01:41:58"},
               {"America/New_York", 1780000000, "Thu May 28 16:26:40"}};
  for (const Case& c : cases) {
    ::setenv("TZ", c.zone, 1);
    ::tzset();
    EXPECT_EQ(logDateText(c.when), c.date) << c.when;
  }
  EXPECT_EQ(logLineText(1794811318, "office-mac", 412, "a\nb"),
            "Mon Nov 16 01:41:58 office-mac vesk[412]: a\nb\n");
}

class LogWriter : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("VESK_ROOT", root_.path().c_str(), 1);
    fs::create_directories(root_.path() / "usr/bin");
    fs::create_symlink("/usr/bin/gzip", root_.path() / "usr/bin/gzip");
    VKLogging::setLogFileSources(&testComputerName, &compressWithGzip);
  }

  fs::path logFolder() const { return root_.path() / "private/var/log"; }
  fs::path log() const { return logFolder() / "vesk.log"; }
  // The lines written, each without its date (19 characters and a blank).
  std::vector<std::string> lines() const {
    std::vector<std::string> written = split(test::readFile(log()), '\n');
    EXPECT_EQ(written.back(), "");  // every line ends with its newline
    written.pop_back();
    for (std::string& line : written) line.erase(0, 20);
    return written;
  }
  std::string mine(const std::string& message) const {
    return "office-mac vesk[" + std::to_string(::getpid()) + "]: " + message;
  }

  test::TemporaryFolder root_;
};

TEST_F(LogWriter, CreatesTheFolderAndFileAndAppendsWholeLinesFromManyThreads) {
  VKLogging::logEvent("started {} with {}", "policy", 3);
  EXPECT_EQ(lines(), std::vector<std::string>{mine("started policy with 3")});
  EXPECT_EQ(fs::status(logFolder()).permissions(), fs::perms(0755));
  EXPECT_EQ(fs::status(log()).permissions(), fs::perms(0755));
  struct stat info {};
  if (::stat(log().c_str(), &info) == 0 && ::geteuid() == 0) {
    EXPECT_EQ(info.st_uid, 0u);
    EXPECT_EQ(info.st_gid, 80u);
  }

  std::vector<std::thread> writers;
  for (int t = 0; t < 8; ++t)
    writers.emplace_back([t] {
      for (int i = 0; i < 300; ++i) VKLogging::logEvent("thread {} {}", t, std::string(200, 'x'));
    });
  for (std::thread& writer : writers) writer.join();
  const std::vector<std::string> written = lines();
  ASSERT_EQ(written.size(), 1u + 8 * 300);
  for (std::size_t i = 1; i < written.size(); ++i)
    ASSERT_EQ(written[i], mine("thread " + written[i].substr(mine("thread ").size(), 1) + " " +
                               std::string(200, 'x')));
}

TEST_F(LogWriter, AFileWhereTheFolderShouldBeLosesTheLineQuietly) {
  root_.write("private/var/log", "not a folder");
  EXPECT_NO_THROW(VKLogging::logEvent("nowhere to go"));
  EXPECT_EQ(test::readFile(root_.path() / "private/var/log"), "not a folder");
}

TEST_F(LogWriter, RotatesPastOneHundredMillionBytesShiftingTenGenerations) {
  for (int i = 1; i <= 10; ++i)
    root_.write("private/var/log/vesk.log." + std::to_string(i) + ".gz",
                "generation " + std::to_string(i));
  // A log of that size that takes no room on disk.
  root_.write("private/var/log/vesk.log", "");
  ASSERT_EQ(::truncate(log().c_str(), 99'999'999), 0);
  VKLogging::logEvent("still room");  // just below the limit: no rotation yet
  EXPECT_EQ(test::readFile(logFolder() / "vesk.log.1.gz"), "generation 1");
  const std::uintmax_t full = fs::file_size(log());

  VKLogging::logEvent("fresh");
  const std::string unpacked =
      test::runProgram("/bin/sh", {"-c", "gzip -dc \"$0\" | wc -c", logFolder() / "vesk.log.1.gz"},
                       test::environmentWithout({}))
          .output;
  EXPECT_EQ(strip(unpacked), std::to_string(full));
  for (int i = 2; i <= 10; ++i)
    EXPECT_EQ(test::readFile(logFolder() / ("vesk.log." + std::to_string(i) + ".gz")),
              "generation " + std::to_string(i - 1));
  EXPECT_FALSE(fs::exists(logFolder() / "vesk.log.11.gz"));
  EXPECT_EQ(lines(), std::vector<std::string>{mine("fresh")});
  EXPECT_EQ(fs::status(log()).permissions(), fs::perms(0755));
}

TEST_F(LogWriter, AGzipThatCannotStartStillLeavesAWorkingLog) {
  fs::remove(root_.path() / "usr/bin/gzip");
  root_.write("private/var/log/vesk.log", "");
  ASSERT_EQ(::truncate(log().c_str(), 100'000'001), 0);
  VKLogging::logEvent("after");
  // The failure is logged into the full log, which then goes: nothing loops, nothing hangs.
  EXPECT_FALSE(fs::exists(logFolder() / "vesk.log.1.gz"));
  EXPECT_EQ(lines(), std::vector<std::string>{mine("after")});
}

TEST_F(LogWriter, ExtremeLinesNeedTheDebugLevel) {
  VKLogging::logExtreme("hidden");  // no level reader: normal
  EXPECT_FALSE(fs::exists(log()));
}

TEST_F(LogWriter, AtTheDebugLevelReadOnceExtremeLinesGoToTheFileOnly) {
  VKLogging::setLogLevelReader([] { return 0; });
  testing::internal::CaptureStdout();
  VKLogging::logExtreme("detail {}", 7);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(lines(), std::vector<std::string>{mine("[DEBUG] detail 7")});
  VKLogging::setLogLevelReader(nullptr);
  EXPECT_EQ(VKLogging::globalLogLevel(), 0);  // read once, kept
}

TEST_F(LogWriter, ErrorsAreLoggedWithTheirDescription) {
  VKLogging::logError(nullptr);
  VKLogging::logError(nullptr, "ignored");
  EXPECT_FALSE(fs::exists(log()));
  const Error error("com.vesksoftware.task.errors", 3);
  testing::internal::CaptureStdout();
  VKLogging::logError(&error);
  VKLogging::logError(&error, "Unable to run");
  VKLogging::logEventAndPrint("both {}", "sinks");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "both sinks\n");
  EXPECT_EQ(lines(), (std::vector<std::string>{mine(error.description()),
                                               mine("Unable to run: " + error.description()),
                                               mine("both sinks")}));
}

TEST(PolicyLogging, StoresPrintedLinesOnlyWhileOnAndSuccessStaysFailedUntilItStartsAgain) {
  VKLogging::addToPolicySuccess(false);  // not logging: ignored
  EXPECT_TRUE(VKLogging::getPolicySuccess());
  testing::internal::CaptureStdout();
  VKLogging::println("before");
  VKLogging::startPolicyLogging();
  VKLogging::println("one");
  VKLogging::printlnVerbose("never stored");
  VKLogging::synchronizedPrintln("console only");
  VKLogging::addToPolicySuccess(false);
  VKLogging::addToPolicySuccess(true);
  VKLogging::stopPolicyLogging();
  VKLogging::println("while stopped");
  VKLogging::restartPolicyLogging();
  VKLogging::println("two");
  VKLogging::println("{}", "x\nx\nx\nx\nx\nx\nx\ny");  // long runs are shortened when stored
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "before\none\nconsole only\nwhile stopped\ntwo\nx\nx\nx\nx\nx\nx\nx\ny\n");
  const std::vector<std::string> stored = VKLogging::policyLogEvents();
  ASSERT_EQ(stored.size(), 3u);
  EXPECT_EQ(stored[1], "two");
  EXPECT_NE(stored[2].find("[previous line repeated"), std::string::npos);
  EXPECT_FALSE(VKLogging::getPolicySuccess());

  VKLogging::startPolicyLoggingWithLimit(750);
  EXPECT_TRUE(VKLogging::getPolicySuccess());
  EXPECT_TRUE(VKLogging::policyLogEvents().empty());
}

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
