#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/CanRunOnThisOSXVersionCommand.h"
#include "agent/EntryPoint.h"
#include "agent/VKCommand.h"
#include "agent/VKEnvironmentInfo.h"
#include "foundation/Exception.h"
#include "helpers/TestSupport.h"
#include "logging/VKLogging.h"

namespace vesk {
namespace {

struct NamedCommand : VKCommand {
  std::vector<std::string> optionsWithRequiredValues() const override { return {"-name"}; }
};

TEST(OptionParsing, FlagsTakeTheNextPlainWordAndOnlyValueTakingOnesTakeAFlag) {
  const std::string huge(100000, 'x');
  struct Case {
    std::vector<std::string> arguments;
    Options expected;
  } cases[] = {
      {{"-verbose", "-debug"}, {{"debug", ""}, {"verbose", ""}}},
      // A flag swallows a following plain word, even one that expects no value.
      {{"-verbose", "version"}, {{"verbose", "version"}}},
      {{"-randomDelaySeconds", "-5"}, {{"randomDelaySeconds", "-5"}}},  // a number is a value
      // The verb is skipped like any word no flag takes; later repetitions win.
      {{"version", "-a", "1", "--a", "2", "-b"}, {{"a", "2"}, {"b", ""}}},
      {{"-target", "-x"}, {{"target", "-x"}}},
      // Two dashes are one too many for the value-taking list: "--target" is a plain flag.
      {{"--target", "-x"}, {{"target", ""}, {"x", ""}}},
      {{"-name", "-x"}, {{"name", "-x"}}},  // the command's own value-taking option
      // Odd words are stored or skipped without failing: "--" cleans to an empty name, a lone
      // "-" is numeric, so a value.
      {{"", "-a", "", "-"}, {{"a", ""}}},
      {{"--"}, {{"", ""}}},
      {{" -spaced ", "v"}, {{"spaced", "v"}}},
      {{"-k", huge}, {{"k", huge}}},
  };
  for (Case& c : cases) {
    std::vector<std::string> arguments = c.arguments;
    arguments.insert(arguments.begin(), "veskAgent");
    EXPECT_EQ(VKCommand::create<NamedCommand>(arguments)->options(), c.expected)
        << c.arguments.front();
  }
  const auto named = VKCommand::create<NamedCommand>({"veskAgent"});
  EXPECT_TRUE(named->doesArgRequireValue("-target"));
  EXPECT_FALSE(named->doesArgRequireValue("-Target"));
  EXPECT_EQ(VKCommand::cleanOptionFlag(" --target- "), "target");
  EXPECT_FALSE(VKCommand::isOptionFlag("-3."));
  EXPECT_TRUE(VKCommand::isOptionFlag("\t-v\n"));
}

TEST(OptionParsing, TargetLosesItsTrailingSlashesAndFallsBackToTheFirstOneSeen) {
  const auto first = VKCommand::create<VKCommand>({"veskAgent", "-target", " /Volumes/Disk// "});
  EXPECT_EQ(first->target(), "/Volumes/Disk");
  EXPECT_EQ(VKCommand::create<VKCommand>({"veskAgent", "-target", "/"})->target(), "/Volumes/Disk");
  EXPECT_EQ(VKCommand::create<VKCommand>({"veskAgent", "-target", "/Other"})->target(), "/Other");
  EXPECT_EQ(VKCommand::globalTarget(), "/Volumes/Disk");
}

TEST(ProcessWideSwitches, TheFirstCommandBuiltDecidesThemForTheProcess) {
  testing::internal::CaptureStdout();
  const auto first = VKCommand::create<VKCommand>(
      {"veskAgent", "-verbose", "-debug", "-overrideKSV", " https://ksv.example:8443 ",
       "-displayKSVTraffic", "-randomDelaySeconds", "zero", "-showPID"});
  const auto second = VKCommand::create<VKCommand>(
      {"veskAgent", "-overrideKSV", "https://other/", "-randomDelaySeconds", "3", "-showPID"});
  const std::string printed = testing::internal::GetCapturedStdout();

  EXPECT_TRUE(second->verbose());
  EXPECT_EQ(VKCommand::overrideKsvUrl(), " https://ksv.example:8443 /");
  EXPECT_TRUE(second->displayKsvTraffic());
  // Asking for debug clears it: debug output never appears through this switch.
  EXPECT_FALSE(VKCommand::debug());
  // The non-numeric delay took none but used up the delay; the second one is ignored, and
  // the PID line appears once.
  EXPECT_EQ(printed, "Running with PID:(" + std::to_string(::getpid()) + ")\n");
}

TEST(ProcessWideSwitches, VerboseStaysOffOnceTheFirstCommandLeftItOff) {
  const auto first = VKCommand::create<VKCommand>({"veskAgent"});
  const auto second = VKCommand::create<VKCommand>({"veskAgent", "-verbose"});
  EXPECT_FALSE(VKCommand::verbose());
  second->setDisplayKsvTraffic(true);
  EXPECT_TRUE(second->displayKsvTraffic());  // its own request counts for itself
  EXPECT_FALSE(VKCommand::globalDisplayKsvTraffic());
  EXPECT_FALSE(first->displayKsvTraffic());
}

TEST(CommandLifeCycle, HooksRunInOrderAndTheBaseCommandRefusesToExecute) {
  static std::vector<std::string> log;
  struct Recorder : VKCommand {
    bool rootRequired() const override { return false; }
    void preInitialize() override { log.push_back("pre:" + options().at("x")); }
    void onInitialize() override { log.push_back("on"); }
    void validateOptions() override { log.push_back("validate"); }
    int execute() override {
      log.push_back("execute");
      return 7;
    }
  };
  EXPECT_EQ(VKCommand::create<Recorder>({"veskAgent", "-x", "1"})->validateAndExecute(), 7);
  EXPECT_EQ(log, (std::vector<std::string>{"pre:1", "on", "validate", "execute"}));

  if (::getuid() != 0) GTEST_SKIP() << "the root check runs before execute; needs root";
  testing::internal::CaptureStdout();
  EXPECT_EQ(runGuarded([] { return VKCommand::create<VKCommand>({"x"})->validateAndExecute(); }),
            1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\nThere was an error.\n\n     An abstract method on the parent class was "
            "unexpectedly called. VKCommand should override the execute method to fix this.\n\n");
}

TEST(EntryGuard, PrintsOnlyTheReasonInsideOneOfTheTwoErrorTexts) {
  struct Case {
    std::function<int()> body;
    int status;
    const char* printed;
  } cases[] = {
      {[]() -> int { throw InvalidSyntaxException("Bad Syntax", "-target needs a path"); }, 1,
       "\nThere is an error in your syntax.\n\n     Error: -target needs a path\n\nType \"vesk "
       "help\" for more information.\n\n"},
      {[]() -> int { throw Exception("VESK Root User", "must be root"); }, 1,
       "\nThere was an error.\n\n     must be root\n\n"},
      {[]() -> int { throw std::runtime_error("disk full"); }, 1,
       "\nThere was an error.\n\n     disk full\n\n"},
      {[] { return 5; }, 5, ""},
  };
  for (const Case& c : cases) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(runGuarded(c.body), c.status);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
  }
}

class EnvironmentInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("VESK_ROOT", root_.path().c_str(), 1);
    ::unsetenv("VESK_OS_VERSION");
    VKEnvironmentInfo::invalidateCachedData();
  }
  void TearDown() override { ::unsetenv("VESK_ROOT"); }

  // A stand-in `defaults` that records its arguments and prints `output`.
  void installDefaults(const std::string& output) {
    root_.write("usr/local/vesk/bin/vesk-defaults",
                "#!/bin/sh\necho \"$@\" > \"$VESK_ROOT/args\"\ncat <<'EOF'\n" + output + "\nEOF\n",
                0755);
  }

  test::TemporaryFolder root_;
};

TEST_F(EnvironmentInfo, LogLinesNameTheComputerOnceTheCommandLineIsUpAndAFailedLookupDoesNotHang) {
  // No defaults tool: finding the name logs that it could not run, from inside a log line.
  VKCommand::verbose();  // the command base hands its sources to the log writer
  VKLogging::logEvent("hello");
  installDefaults(
      "{\n    Network = { };\n    System = {\n        ComputerName = \"Office Mac\";\n    };\n}");
  VKLogging::logEvent("cached");
  VKEnvironmentInfo::invalidateCachedData();
  VKLogging::logEvent("again");
  EXPECT_EQ(test::readFile(root_.path() / "args"),
            "read " + root_.path().string() +
                "/Library/Preferences/SystemConfiguration/preferences System\n");
  const std::string log = test::readFile(root_.path() / "private/var/log/vesk.log");
  const std::string me = " vesk[" + std::to_string(::getpid()) + "]: ";
  EXPECT_NE(log.find(" No Name" + me + "Error executing command: ("), std::string::npos) << log;
  EXPECT_NE(log.find(" No Name" + me + "hello\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" No Name" + me + "cached\n"), std::string::npos) << log;
  EXPECT_TRUE(log.ends_with(" Office Mac" + me + "again\n")) << log;
}

TEST_F(EnvironmentInfo, VersionChecksRaiseWithTheRequiredVersion) {
  ::setenv("VESK_OS_VERSION", "10.7.5", 1);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(VKEnvironmentInfo::isLionOrGreater());
  EXPECT_FALSE(VKEnvironmentInfo::isMountainLionOrGreater());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  try {
    VKEnvironmentInfo::mountainLionOrGreaterCheck();
    FAIL() << "10.7.5 is older than 10.8.0";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "VESK OS Version");
    EXPECT_EQ(e.reason(), "This application must be run on Mac OS X v10.8.0 or later.");
  }
  // The entry point refuses a system older than 10.7 first; the verb still answers for itself.
  ::setenv("VESK_OS_VERSION", "10.6.8", 1);
  testing::internal::CaptureStdout();
  EXPECT_EQ(VKCommand::create<CanRunOnThisOSXVersionCommand>({"x"})->validateAndExecute(), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "NO\n");
}

TEST_F(EnvironmentInfo, TheRootCheckRefusesAnOrdinaryUser) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to become another user";
  EXPECT_NO_THROW(VKEnvironmentInfo::rootCheck());
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (::setresuid(65534, 65534, 65534) != 0) ::_exit(10);
    try {
      VKEnvironmentInfo::rootCheck();
      ::_exit(11);
    } catch (const Exception& e) {
      const bool right =
          e.name() == "VESK Root User" &&
          e.reason() == "This application must be run as root. Try the sudo command.";
      ::_exit(right ? 0 : 12);
    }
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Console, VerboseLinesNeedTheVerboseFlagAndDebugLinesNeverAppear) {
  testing::internal::CaptureStdout();
  VKLogging::printlnVerbose("before any command");
  const auto command = VKCommand::create<VKCommand>({"veskAgent", "-verbose", "-debug"});
  VKLogging::printlnVerbose("checking {} of {}", 2, Value("three"));
  VKLogging::debugPrintln("never shown");
  VKLogging::println("plain {}", std::string("line\0cut", 8));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), " verbose: checking 2 of three\nplain line\n");
}

}  // namespace
}  // namespace vesk
