#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/EntryPoint.h"
#include "agent/VKCommand.h"
#include "foundation/Exception.h"

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

}  // namespace
}  // namespace vesk
