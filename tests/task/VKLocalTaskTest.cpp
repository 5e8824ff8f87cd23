#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "foundation/PropertyList.h"
#include "helpers/TestSupport.h"
#include "task/VKLocalTask.h"

namespace vesk {
namespace {

Command shell(const std::string& script) { return {"/bin/sh", "-c", script}; }

TEST(LocalTask, AnswersTheOutputStrippedAndRunsWithoutAShell) {
  VKLocalTask task;
  EXPECT_EQ(task.execute({"/bin/echo", "  word  "}), "word");
  // Each argument reaches the program as it is: no shell splits or expands it.
  EXPECT_EQ(task.execute({"/usr/bin/printf", "%s|", "a b", "$HOME", "*"}), "a b|$HOME|*|");
  EXPECT_EQ(task.execute({"/bin/true"}), "");
  EXPECT_GT(task.processId(), 0);
}

TEST(LocalTask, SeparatesOrMixesErrorTextAsAsked) {
  VKLocalTask task;
  const Command both = shell("echo out; echo err >&2");
  EXPECT_EQ(task.executeAndAnswerPromptWith(both, std::nullopt, nullptr, true), "out");
  const std::string mixed = task.executeAndAnswerPromptWith(both, std::nullopt, nullptr, false);
  EXPECT_NE(mixed.find("out"), std::string::npos);
  EXPECT_NE(mixed.find("err"), std::string::npos);
}

TEST(LocalTask, ReportsANonZeroStatusAndStillAnswersTheOutput) {
  VKLocalTask task;
  Error error;
  EXPECT_EQ(task.execute(shell("echo partial; exit 3"), &error), "partial");
  EXPECT_EQ(error.domain(), "com.vesksoftware.task.errors");
  EXPECT_EQ(error.code(), 3);
  EXPECT_TRUE(error.userInfo().empty());

  Error untouched("unchanged", 1);
  EXPECT_EQ(task.execute({"/bin/echo", "ok"}, &untouched), "ok");
  EXPECT_EQ(untouched.domain(), "unchanged");

  Error killed;
  task.execute(shell("kill -9 $$"), &killed);
  EXPECT_EQ(killed.code(), 9);  // the signal that ended it
}

TEST(LocalTask, AMissingExecutableOrEmptyCommandAnswersNothing) {
  VKLocalTask task;
  Error error;
  EXPECT_EQ(task.execute({"/no/such/program", "x"}, &error), "");
  EXPECT_EQ(error.domain(), "com.vesksoftware.task.errors");
  Error empty;
  EXPECT_EQ(task.execute({}, &empty), "");
  EXPECT_EQ(empty.domain(), "com.vesksoftware.task.errors");
  EXPECT_EQ(task.execute({"/bin/echo", "still usable"}), "still usable");
}

TEST(LocalTask, WritesTheAnswerAndOneNewlineThenClosesInput) {
  VKLocalTask task;
  const Command twoLines =
      shell("read a; if read b; then echo \"two:$b\"; else echo \"got:$a eof\"; fi");
  EXPECT_EQ(task.executeAndAnswerPromptWith(twoLines, std::string("s3cret $x"), nullptr),
            "got:s3cret $x eof");
  // A child that never reads its input must not hurt this process, even with a large answer.
  EXPECT_EQ(task.executeAndAnswerPromptWith({"/bin/true"}, std::string(1 << 20, 'a'), nullptr), "");
}

TEST(LocalTask, ChildrenFindTheClientToolsLastOnTheirPath) {
  ::unsetenv("VESK_ROOT");
  ::setenv("PATH", "/usr/bin:/bin", 1);
  VKLocalTask task;
  EXPECT_EQ(task.execute(shell("printf %s \"$PATH\"")), "/usr/bin:/bin:/usr/local/vesk/bin");
  ::setenv("VESK_ROOT", "/tmp/root", 1);
  EXPECT_EQ(task.execute(shell("printf %s \"$PATH\"")),
            "/usr/bin:/bin:/tmp/root/usr/local/vesk/bin");
  ::unsetenv("VESK_ROOT");
  ::unsetenv("PATH");
  std::string environment = "\n";
  environment += task.execute({"/usr/bin/env"});
  environment += "\n";
  EXPECT_NE(environment.find("\nPATH=/usr/local/vesk/bin\n"), std::string::npos) << environment;
}

TEST(LocalTask, ParsesTheOutputAsAPropertyList) {
  VKLocalTask task;
  const Value xml = task.executeReturningPlist(shell(
      "printf '<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>n</key><integer>7</integer></dict></plist>'"));
  ASSERT_TRUE(xml.isDictionary());
  EXPECT_EQ((*xml.dictionary())["n"], Value(7));

  const Value text =
      task.executeReturningPlist(shell("echo '{ System = { ComputerName = \"A B\"; }; }'"));
  ASSERT_TRUE(text.isDictionary());
  EXPECT_EQ(text.dictionary()->valueForKeyPath("System.ComputerName"), Value("A B"));

  // Binary output arrives byte for byte, even where its bytes are not text.
  test::TemporaryFolder folder;
  const Value binary(Dictionary{{"bytes", Value(Data{0xff, 0x00, 0x0a, 0x20})}, {"n", 7}});
  const auto file = folder.write("binary.plist", binaryPropertyList(binary));
  EXPECT_EQ(task.executeReturningPlist({"/bin/cat", file.string()}), binary);

  Error error;
  EXPECT_TRUE(task.executeReturningPlist(shell("echo 'not a plist'; exit 1"), &error).isNil());
  EXPECT_EQ(error.code(), 1);
}

}  // namespace
}  // namespace vesk
