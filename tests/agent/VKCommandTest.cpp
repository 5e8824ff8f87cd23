#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/VKCommand.h"
#include "foundation/Exception.h"

namespace vesk {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

Options parse(std::vector<std::string> arguments) {
  return VKCommand::create<VKCommand>(std::move(arguments))->options();
}

TEST(OptionParsing, FlagsTakeTheNextPlainWordAndValuesMayLookLikeNumbers) {
  EXPECT_THAT(parse({"veskAgent", "-verbose", "-debug"}),
              ElementsAre(Pair("debug", ""), Pair("verbose", "")));
  // A flag swallows a following plain word, even one that expects no value.
  EXPECT_THAT(parse({"veskAgent", "-verbose", "version"}), ElementsAre(Pair("verbose", "version")));
  // A dash followed by a number is a value, not a flag.
  EXPECT_THAT(parse({"veskAgent", "-randomDelaySeconds", "-5"}),
              ElementsAre(Pair("randomDelaySeconds", "-5")));
  // The verb and argument 0 are skipped like any word no flag takes; later repetitions win.
  EXPECT_THAT(parse({"veskAgent", "version", "-a", "1", "--a", "2", "-b"}),
              ElementsAre(Pair("a", "2"), Pair("b", "")));
}

TEST(OptionParsing, OnlyTargetAlwaysTakesTheNextArgument) {
  EXPECT_THAT(parse({"veskAgent", "-target", "-x"}), ElementsAre(Pair("target", "-x")));
  // Two dashes are one too many for the value-taking list, so "--target" is a plain flag.
  EXPECT_THAT(parse({"veskAgent", "--target", "-x"}),
              ElementsAre(Pair("target", ""), Pair("x", "")));

  struct NamedCommand : VKCommand {
    std::vector<std::string> optionsWithRequiredValues() const override { return {"-name"}; }
  };
  const auto named = VKCommand::create<NamedCommand>({"veskAgent", "-name", "-x"});
  EXPECT_THAT(named->options(), ElementsAre(Pair("name", "-x")));
  EXPECT_TRUE(named->doesArgRequireValue("name"));
  EXPECT_TRUE(named->doesArgRequireValue("-target"));
  EXPECT_FALSE(named->doesArgRequireValue("--target"));
  EXPECT_FALSE(named->doesArgRequireValue("-Target"));
}

TEST(OptionParsing, OddArgumentsAreStoredOrSkippedWithoutFailing) {
  EXPECT_THAT(parse({"veskAgent", "", "-a", "", "-"}), ElementsAre(Pair("a", "")));
  // "--" cleans to an empty name and is stored under it; a lone "-" is numeric, so a value.
  EXPECT_THAT(parse({"veskAgent", "--"}), ElementsAre(Pair("", "")));
  EXPECT_THAT(parse({"veskAgent", " -spaced ", "v"}), ElementsAre(Pair("spaced", "v")));
  const std::string huge(100000, 'x');
  EXPECT_THAT(parse({"veskAgent", "-k", huge}), ElementsAre(Pair("k", huge)));
  EXPECT_EQ(VKCommand::cleanOptionFlag(" --target- "), "target");
  EXPECT_FALSE(VKCommand::isOptionFlag("-3."));
  EXPECT_TRUE(VKCommand::isOptionFlag("\t-v\n"));
}

TEST(OptionParsing, TargetLosesItsTrailingSlashesAndFallsBackToTheFirstOneSeen) {
  const auto first = VKCommand::create<VKCommand>({"veskAgent", "-target", " /Volumes/Disk// "});
  EXPECT_EQ(first->target(), "/Volumes/Disk");
  const auto second = VKCommand::create<VKCommand>({"veskAgent", "-target", "/"});
  EXPECT_EQ(second->target(), "/Volumes/Disk");
  const auto third = VKCommand::create<VKCommand>({"veskAgent", "-target", "/Other"});
  EXPECT_EQ(third->target(), "/Other");
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

  EXPECT_TRUE(VKCommand::verbose());
  EXPECT_TRUE(second->verbose());
  EXPECT_EQ(VKCommand::overrideKsvUrl(), " https://ksv.example:8443 /");
  EXPECT_TRUE(VKCommand::globalDisplayKsvTraffic());
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

TEST(CommandLifeCycle, TheBaseCommandRefusesToExecute) {
  if (::getuid() != 0) GTEST_SKIP() << "the root check runs before execute; needs root";
  const auto command = VKCommand::create<VKCommand>({"veskAgent"});
  try {
    command->validateAndExecute();
    FAIL() << "execute of the base class must raise";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "Unsupported Operation");
    EXPECT_EQ(
        e.reason(),
        "An abstract method on the parent class was unexpectedly called. VKCommand should override the execute method to fix this.");
  }
}

TEST(CommandLifeCycle, HooksRunInOrderAndTheRootCheckComesFirst) {
  struct Recorder : VKCommand {
    static std::vector<std::string>& log() {
      static std::vector<std::string> entries;
      return entries;
    }
    bool rootRequired() const override { return false; }
    void preInitialize() override { log().push_back("pre:" + options().at("x")); }
    void onInitialize() override { log().push_back("on"); }
    void validateOptions() override { log().push_back("validate"); }
    int execute() override {
      log().push_back("execute");
      return 7;
    }
  };
  const auto command = VKCommand::create<Recorder>({"veskAgent", "-x", "1"});
  EXPECT_EQ(command->validateAndExecute(), 7);
  EXPECT_THAT(Recorder::log(), ElementsAre("pre:1", "on", "validate", "execute"));
}

}  // namespace
}  // namespace vesk
