#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/StringHelpers.h"
#include "helpers/TestSupport.h"
#include "logging/LogFile.h"
#include "logging/VKLogging.h"
#include "task/VKLocalTask.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

std::string testComputerName() { return "office-mac"; }
int debugLevel() { return 0; }

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
  std::vector<std::string> lines() const { return split(test::readFile(log()), '\n'); }

  // A log of `size` bytes that takes no room on disk.
  void growLogTo(off_t size) const {
    root_.write("private/var/log/vesk.log", "");
    ASSERT_EQ(::truncate(log().c_str(), size), 0);
  }

  // What gzip makes of a generation, through the real gzip.
  static std::string uncompressedSize(const fs::path& generation) {
    return strip(test::runProgram("/bin/sh", {"-c", "gzip -dc \"$0\" | wc -c", generation.string()},
                                  test::environmentWithout({}))
                     .output);
  }

  test::TemporaryFolder root_;
};

TEST(LogLine, ReadsDateComputerProgramAndMessage) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  // Mon Nov 16 06:41:58 2026 UTC
  EXPECT_EQ(logLineText(1794811318, "office-mac", 412, "a\nb"),
            "Mon Nov 16 06:41:58 office-mac vesk[412]: a\nb\n");
  EXPECT_EQ(logDateText(1794811318 - 6 * 3600 - 41 * 60), "Mon Nov 16 00:00:58");
  ::setenv("TZ", "America/New_York", 1);
  ::tzset();
  EXPECT_EQ(logDateText(1794811318), "Mon Nov 16 01:41:58");  // the user's time zone
  EXPECT_EQ(logDateText(1780000000), "Thu May 28 16:26:40");
}

TEST_F(LogWriter, CreatesTheFolderAndFileAndAppendsWholeLines) {
  VKLogging::logEvent("started {} with {}", "policy", 3);
  VKLogging::logEvent("second");

  struct stat info {};
  ASSERT_EQ(::stat(logFolder().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0755u);
  ASSERT_EQ(::stat(log().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0755u);
  if (::geteuid() == 0) {
    EXPECT_EQ(info.st_uid, 0u);
    EXPECT_EQ(info.st_gid, 80u);
  }

  const std::regex line(
      R"((Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) )"
      R"(\d\d \d\d:\d\d:\d\d office-mac vesk\[(\d+)\]: (.*))");
  const std::vector<std::string> written = lines();
  ASSERT_EQ(written.size(), 3u);  // the last is what follows the final newline
  std::smatch match;
  ASSERT_TRUE(std::regex_match(written[0], match, line)) << written[0];
  EXPECT_EQ(match[3], std::to_string(::getpid()));
  EXPECT_EQ(match[4], "started policy with 3");
  ASSERT_TRUE(std::regex_match(written[1], match, line)) << written[1];
  EXPECT_EQ(match[4], "second");
  EXPECT_EQ(written[2], "");
}

TEST_F(LogWriter, LinesFromManyThreadsNeverMix) {
  std::vector<std::thread> writers;
  for (int t = 0; t < 8; ++t)
    writers.emplace_back([t] {
      for (int i = 0; i < 300; ++i)
        VKLogging::logEvent("thread {} line {} {}", t, i, std::string(200, 'x'));
    });
  for (std::thread& writer : writers) writer.join();
  const std::regex whole(R"(.* office-mac vesk\[\d+\]: thread \d line \d+ x{200})");
  std::vector<std::string> written = lines();
  written.pop_back();
  ASSERT_EQ(written.size(), 8u * 300u);
  for (const std::string& l : written) ASSERT_TRUE(std::regex_match(l, whole)) << l;
}

TEST_F(LogWriter, AFileWhereTheFolderShouldBeLosesTheLineQuietly) {
  root_.write("private/var/log", "not a folder");
  EXPECT_NO_THROW(VKLogging::logEvent("nowhere to go"));
  EXPECT_EQ(test::readFile(root_.path() / "private/var/log"), "not a folder");
}

TEST_F(LogWriter, RotatesOnlyFromOneHundredMillionBytes) {
  growLogTo(99'999'999);
  VKLogging::logEvent("still room");
  EXPECT_FALSE(fs::exists(logFolder() / "vesk.log.1.gz"));
  const std::uintmax_t full = fs::file_size(log());
  ASSERT_GT(full, 100'000'000u);

  VKLogging::logEvent("fresh");
  EXPECT_EQ(uncompressedSize(logFolder() / "vesk.log.1.gz"), std::to_string(full));
  EXPECT_FALSE(fs::exists(logFolder() / "vesk.log.gz"));
  const std::vector<std::string> written = lines();
  ASSERT_EQ(written.size(), 2u);
  EXPECT_TRUE(written[0].ends_with(" vesk[" + std::to_string(::getpid()) + "]: fresh"));
  struct stat info {};
  ASSERT_EQ(::stat(log().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0755u);
}

TEST_F(LogWriter, ARotationShiftsTenGenerationsAndDropsTheOldest) {
  for (int i = 1; i <= 10; ++i)
    root_.write("private/var/log/vesk.log." + std::to_string(i) + ".gz",
                "generation " + std::to_string(i));
  growLogTo(100'000'000);
  VKLogging::logEvent("after");

  EXPECT_EQ(uncompressedSize(logFolder() / "vesk.log.1.gz"), "100000000");
  for (int i = 2; i <= 10; ++i)
    EXPECT_EQ(test::readFile(logFolder() / ("vesk.log." + std::to_string(i) + ".gz")),
              "generation " + std::to_string(i - 1));
  EXPECT_FALSE(fs::exists(logFolder() / "vesk.log.11.gz"));
  EXPECT_EQ(lines().size(), 2u);
}

TEST_F(LogWriter, AGzipThatCannotStartStillLeavesAWorkingLog) {
  fs::remove(root_.path() / "usr/bin/gzip");
  growLogTo(100'000'000);
  VKLogging::logEvent("after");
  // The failure is logged into the full log, which then goes: nothing loops, nothing hangs.
  EXPECT_FALSE(fs::exists(logFolder() / "vesk.log.1.gz"));
  const std::vector<std::string> written = lines();
  ASSERT_EQ(written.size(), 2u);
  EXPECT_TRUE(written[0].ends_with("]: after"));
}

TEST_F(LogWriter, ExtremeLinesNeedTheDebugLevel) {
  EXPECT_EQ(VKLogging::globalLogLevel(), 1);  // no configuration in this program
  VKLogging::logExtreme("hidden");
  EXPECT_FALSE(fs::exists(log()));
}

TEST_F(LogWriter, AtTheDebugLevelExtremeLinesGoToTheFileOnly) {
  VKLogging::setLogLevelReader(&debugLevel);
  testing::internal::CaptureStdout();
  VKLogging::logExtreme("detail {}", 7);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(lines()[0].ends_with("]: [DEBUG] detail 7"));
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
  const std::vector<std::string> written = lines();
  ASSERT_EQ(written.size(), 4u);
  const std::string description = error.description();
  EXPECT_TRUE(written[0].ends_with("]: " + description)) << written[0];
  EXPECT_TRUE(written[1].ends_with("]: Unable to run: " + description)) << written[1];
  EXPECT_TRUE(written[2].ends_with("]: both sinks"));
}

TEST(PolicyLogging, StoresPrintedLinesOnlyWhileOn) {
  testing::internal::CaptureStdout();
  VKLogging::println("before");
  VKLogging::startPolicyLogging();
  VKLogging::println("one");
  VKLogging::printlnVerbose("never stored");
  VKLogging::synchronizedPrintln("console only");
  VKLogging::stopPolicyLogging();
  VKLogging::println("while stopped");
  VKLogging::restartPolicyLogging();
  VKLogging::println("two");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "before\none\nconsole only\nwhile stopped\ntwo\n");
  EXPECT_EQ(VKLogging::policyLogEvents(), (std::vector<std::string>{"one", "two"}));

  // Long runs of one line are shortened before they are stored.
  testing::internal::CaptureStdout();
  VKLogging::println("{}", "x\nx\nx\nx\nx\nx\nx\ny");
  testing::internal::GetCapturedStdout();
  EXPECT_NE(VKLogging::policyLogEvents().back().find("[previous line repeated"), std::string::npos);

  VKLogging::clearPolicyLogEvents();
  EXPECT_TRUE(VKLogging::policyLogEvents().empty());
}

TEST(PolicyLogging, SuccessStaysFailedUntilLoggingStartsAgain) {
  VKLogging::addToPolicySuccess(false);  // not logging: ignored
  EXPECT_TRUE(VKLogging::getPolicySuccess());
  VKLogging::startPolicyLoggingWithLimit(750);
  VKLogging::addToPolicySuccess(false);
  VKLogging::addToPolicySuccess(true);
  EXPECT_FALSE(VKLogging::getPolicySuccess());
  VKLogging::restartPolicyLogging();
  EXPECT_FALSE(VKLogging::getPolicySuccess());

  testing::internal::CaptureStdout();
  VKLogging::println("{}", std::string(100, 'z'));
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(VKLogging::logTruncated());
  EXPECT_EQ(VKLogging::policyLogEvents(),
            (std::vector<std::string>{std::string(37, 'z'),
                                      "[Log data was truncated to a max size of 750 bytes]"}));

  VKLogging::startPolicyLoggingWithLimit(0);
  EXPECT_TRUE(VKLogging::getPolicySuccess());
  EXPECT_FALSE(VKLogging::logTruncated());
  EXPECT_TRUE(VKLogging::policyLogEvents().empty());
}

}  // namespace
}  // namespace vesk
