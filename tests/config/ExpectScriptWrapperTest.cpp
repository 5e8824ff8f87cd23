// Scripts for expect, and real runs of them against programs that ask on their terminal.

#include <gtest/gtest.h>

#include <filesystem>

#include "config/ClientFolders.h"
#include "config/ExpectScriptWrapper.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

// Every character the script language treats specially inside double quotes, and a blank.
const std::string kAwkward = "a$b \"c\" \\d [e] {f} g!h%i^j";

// Programs that ask on their terminal: bash's `read` shows its prompt only when its input is
// a terminal, and `-s` turns the terminal's echo off while the answer is typed.
Command asking(const std::string& script) { return {"/bin/bash", "-c", script}; }
const Command kAsksForAPassword = asking("IFS= read -rsp 'Password: ' a; echo; echo \"got [$a]\"");
const Command kAsksForANameAndAPassword = asking(
    "IFS= read -rp 'Name? ' n; IFS= read -rsp 'Password: ' p; echo; "
    "echo \"name [$n] password [$p]\"");

class ExpectScriptWrapperTest : public ::testing::Test {
 protected:
  void SetUp() override { test::useSandbox(root.path()); }
  // Nothing of any run may stay behind: the scripts hold passwords.
  void TearDown() override {
    EXPECT_TRUE(std::filesystem::is_empty(veskTmpDir())) << "a script was left behind";
  }

  test::TemporaryFolder root;  // a root whose temporary folder only this test writes to
  ExpectScriptWrapper wrapper;
};

TEST_F(ExpectScriptWrapperTest, ScriptsAreBuiltFromTheTemplateAndItsPieces) {
  const std::string head = "#!" + (root.path() / "usr/bin/expect").string() + "\nset timeout 60\n";
  const std::string tail =
      "expect {\n  timeout { exit 99 }\n  eof\n}\ncatch wait result\nexit [lindex $result 3]";
  // One answer and no prompt: the answer waits for "password", in any case.
  EXPECT_EQ(wrapper.createScriptFromArguments({"/bin/echo $X", "a b", "$y"}, {}, {"s3cret"}),
            head + "spawn -noecho /bin/echo $X \"a b\" \"\\$y\"\n" +
                "expect {\n  -nocase\n  \"password\"\n}\nsend -- \"s3cret\"\nsend -- \\r\n\n" +
                tail);
  EXPECT_EQ(wrapper.createScriptFromArguments({"/bin/true"}, {}, {}),
            head + "spawn -noecho /bin/true\n\n" + tail);
  // No answer sends a bare return; extra answers follow without a wait; a prompt is
  // lower-cased and trimmed, never escaped.
  EXPECT_EQ(
      wrapper.createScriptFromArguments({"/bin/cmd"}, {" \tNew $Password* "}, {std::nullopt, "y"}),
      head + "spawn -noecho /bin/cmd\nexpect {\n  -nocase\n  \"new $password*\"\n}\n" +
          "send -- \\r\nsend -- \"y\"\nsend -- \\r\n\n" + tail);

  EXPECT_EQ(ExpectScriptWrapper::escapeCommonCharacters(kAwkward),
            "a\\$b \\\"c\\\" \\\\d \\[e\\] \\{f\\} g\\!h\\%i\\^j");
}

TEST_F(ExpectScriptWrapperTest, AnswersAndArgumentsReachTheProgramUnchanged) {
  // The prompt matched "password" in another case; the answer was not echoed.
  EXPECT_EQ(wrapper.executeAndAnswerPromptWith(kAsksForAPassword, kAwkward),
            "Password: \r\ngot [" + kAwkward + "]");
  EXPECT_EQ(wrapper.executeWithPrompts(kAsksForANameAndAPassword, {"NAME?", "password:"},
                                       {"Ann Lee", kAwkward}),
            "Name? Ann Lee\r\nPassword: \r\nname [Ann Lee] password [" + kAwkward + "]");
  // Two prompts and one answer: both get it.
  EXPECT_EQ(wrapper.executeWithPrompts(kAsksForANameAndAPassword, {"name?", "password:"}, {"same"}),
            "Name? same\r\nPassword: \r\nname [same] password [same]");
  EXPECT_EQ(wrapper.executeWithPrompt({"/usr/bin/printf", "[%s]", kAwkward, "", "*"}, std::nullopt,
                                      std::nullopt),
            "[" + kAwkward + "][][*]");
}

TEST_F(ExpectScriptWrapperTest, ScriptIsPrivateWhileItRunsAndEachFailureIsReported) {
  const std::string folder = veskTmpDir();
  Error error;
  // The spawned command looks at the script while it runs.
  const auto mode = wrapper.executeWithPrompts({"/bin/sh", "-c", "stat -c %a '" + folder + "'/*"},
                                               {}, {}, &error);
  ASSERT_TRUE(mode) << error.description();
  EXPECT_EQ(*mode, "700");

  EXPECT_FALSE(wrapper.executeWithPrompts({"/bin/sh", "-c", "exit 3"}, {}, {}, &error));
  EXPECT_EQ(error.domain(), ExpectScriptErrorDomain);
  EXPECT_EQ(error.code(), -1000);
  EXPECT_EQ(error.userInfo()["NSLocalizedDescription"].stringValue(),
            "The operation couldn\u2019t be completed. (com.vesksoftware.task.errors error 3.)");

  // One that deletes it: the removal afterwards fails, and that is the error reported.
  EXPECT_FALSE(wrapper.executeWithPrompts({"/bin/sh", "-c", "rm '" + folder + "'/*; exit 4"}, {},
                                          {}, &error));
  EXPECT_EQ(error.domain(), ExpectScriptErrorDomain);
  EXPECT_EQ(error.code(), -2000);
  EXPECT_EQ(error.localizedDescription(), "No such file or directory");
}

}  // namespace
}  // namespace vesk
