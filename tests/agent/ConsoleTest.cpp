// The console as the command line switches it: verbose and debug lines, and whole lines from
// many threads at once.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/VKCommand.h"
#include "logging/VKLogging.h"

namespace vesk {
namespace {

TEST(Console, VerboseLinesNeedTheVerboseFlagAndDebugLinesNeverAppear) {
  testing::internal::CaptureStdout();
  VKLogging::printlnVerbose("before any command");
  const auto command = VKCommand::create<VKCommand>({"veskAgent", "-verbose", "-debug"});
  VKLogging::printlnVerbose("checking {} of {}", 2, Value("three"));
  VKLogging::debugPrintln("never shown");
  VKLogging::println("plain {}", std::string("line\0cut", 8));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), " verbose: checking 2 of three\nplain line\n");
}

TEST(Console, LinesFromManyThreadsNeverInterleave) {
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  testing::internal::CaptureStdout();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const std::string body(2000, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) VKLogging::synchronizedPrintln("{}", body);
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::istringstream printed(testing::internal::GetCapturedStdout());
  int lines = 0;
  for (std::string line; std::getline(printed, line); ++lines) {
    ASSERT_EQ(line.size(), 2000u);
    ASSERT_EQ(line.find_first_not_of(line[0]), std::string::npos) << "line " << lines;
  }
  EXPECT_EQ(lines, kThreads * kLines);
}

}  // namespace
}  // namespace vesk
