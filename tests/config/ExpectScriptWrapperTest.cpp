// Scripts for expect, and real runs of them against a program that asks on its terminal.

#include <gtest/gtest.h>

#include <filesystem>

#include "config/ClientFolders.h"
#include "config/ExpectScriptWrapper.h"
#include "foundation/StringHelpers.h"
#include "helpers/TestSupport.h"

namespace vesk {
namespace {

const std::string kPrompter = std::string(VESK_HELPERS_DIR) + "/prompter";
// Every character the script language treats specially inside double quotes, and a blank.
const std::string kAwkward = "a$b \"c\" \\d [e] {f} g!h%i^j";

// Waits a second where the real scripts wait sixty, so that a prompt that never comes costs
// the suite one second.
class QuickExpectScriptWrapper : public ExpectScriptWrapper {
 public:
  std::string createScriptFromArguments(const std::vector<std::string>& arguments,
                                        std::vector<std::string> withPrompts,
                                        const std::vector<Answer>& andAnswers) const override {
    const std::string script =
        ExpectScriptWrapper::createScriptFromArguments(arguments, withPrompts, andAnswers);
    return replaceAll(script, "set timeout 60\n", "set timeout 1\n");
  }
};

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
  const std::string interpreter = (root.path() / "usr/bin/expect").string();
  const std::string tail =
      "expect {\n  timeout { exit 99 }\n  eof\n}\ncatch wait result\n"
      "exit [lindex $result 3]";
  EXPECT_EQ(wrapper.createScriptFromArguments({"/bin/echo $X", "a b", "$y"}, {}, {}),
            "#!" + interpreter +
                "\nset timeout 60\nspawn -noecho /bin/echo $X \"a b\" \"\\$y\"\n\n" + tail);

  const std::string password = "expect {\n  -nocase\n  \"password\"\n}\n";
  EXPECT_EQ(wrapper.createScriptFromArguments({"/usr/bin/passwd"}, {}, {"s3cret"}),
            "#!" + interpreter + "\nset timeout 60\nspawn -noecho /usr/bin/passwd\n" + password +
                "send -- \"s3cret\"\nsend -- \\r\n\n" + tail);

  // Both prompts take the one answer; extra answers follow without a wait; no answer at all
  // sends a bare return; a prompt is lower-cased and trimmed, never escaped.
  const auto body = [&](std::vector<std::string> prompts,
                        std::vector<ExpectScriptWrapper::Answer> answers) {
    const std::string script = wrapper.createScriptFromArguments({"/bin/cmd"}, prompts, answers);
    const std::size_t start = script.find("/bin/cmd\n") + 9;
    return script.substr(start, script.size() - tail.size() - start - 1);
  };
  EXPECT_EQ(body({"A:", "B:"}, {"x"}),
            "expect {\n  -nocase\n  \"a:\"\n}\nsend -- \"x\"\nsend -- \\r\n"
            "expect {\n  -nocase\n  \"b:\"\n}\nsend -- \"x\"\nsend -- \\r\n");
  EXPECT_EQ(body({" \tNew $Password* "}, {std::nullopt, "y", "z"}),
            "expect {\n  -nocase\n  \"new $password*\"\n}\nsend -- \\r\n"
            "send -- \"y\"\nsend -- \\r\nsend -- \"z\"\nsend -- \\r\n");
  EXPECT_EQ(body({"Name?"}, {}), "expect {\n  -nocase\n  \"name?\"\n}\nsend -- \\r\n");

  EXPECT_EQ(ExpectScriptWrapper::escapeCommonCharacters(kAwkward),
            "a\\$b \\\"c\\\" \\\\d \\[e\\] \\{f\\} g\\!h\\%i\\^j");
  EXPECT_EQ(ExpectScriptWrapper::createSpawnCommandFromArguments({}), "");
}

TEST_F(ExpectScriptWrapperTest, AnswersAndArgumentsReachTheProgramUnchanged) {
  Error error;
  auto output = wrapper.executeAndAnswerPromptWith({kPrompter, "password"}, kAwkward, &error);
  ASSERT_TRUE(output) << error.description();
  // The prompt matched "password" in another case; the answer was not echoed.
  EXPECT_EQ(*output, "Password: \r\ngot [" + kAwkward + "]");

  output = wrapper.executeWithPrompts({kPrompter, "two"}, {"NAME?", "password:"},
                                      {"Ann Lee", kAwkward}, &error);
  ASSERT_TRUE(output) << error.description();
  EXPECT_NE(output->find("name [Ann Lee] password [" + kAwkward + "]"), std::string::npos)
      << *output;
  output = wrapper.executeWithPrompts({kPrompter, "two"}, {"name?", "password:"}, {"same"});
  ASSERT_TRUE(output);
  EXPECT_NE(output->find("name [same] password [same]"), std::string::npos) << *output;

  output = wrapper.executeWithPrompt({kPrompter, "args", kAwkward, "", "*"}, std::nullopt,
                                     std::nullopt, &error);
  ASSERT_TRUE(output) << error.description();
  EXPECT_EQ(*output, "[" + kAwkward + "][][*]");
}

TEST_F(ExpectScriptWrapperTest, FailedCommandGivesMinus1000AndNoResult) {
  Error error;
  EXPECT_FALSE(wrapper.executeWithPrompts({kPrompter, "exit", "3"}, {}, {}, &error));
  EXPECT_EQ(error.domain(), ExpectScriptErrorDomain);
  EXPECT_EQ(error.code(), -1000);
  EXPECT_EQ(error.userInfo()["NSLocalizedDescription"].stringValue(),
            "The operation couldn\u2019t be completed. (com.vesksoftware.task.errors error 3.)");
}

TEST_F(ExpectScriptWrapperTest, PromptThatNeverComesIsWaitedOutAndSoIsAnEndThatNeverComes) {
  QuickExpectScriptWrapper quick;
  Error error;
  // No "password" ever: after the wait the answer goes out anyway, and the program reads it.
  const auto output = quick.executeAndAnswerPromptWith({kPrompter, "wait"}, "late", &error);
  ASSERT_TRUE(output) << error.description();
  EXPECT_NE(output->find("got [late]"), std::string::npos) << *output;

  EXPECT_FALSE(quick.executeWithPrompts({kPrompter, "hang"}, {}, {}, &error));
  EXPECT_EQ(error.code(), -1000);
  EXPECT_NE(error.localizedDescription().find("error 99."), std::string::npos)
      << error.description();
}

TEST_F(ExpectScriptWrapperTest, ScriptIsPrivateWhileItRunsAndItsRemovalFailureIsReported) {
  const std::string folder = veskTmpDir();
  Error error;
  // The spawned command looks at the script while it runs.
  const auto mode = wrapper.executeWithPrompts({"/bin/sh", "-c", "stat -c %a '" + folder + "'/*"},
                                               {}, {}, &error);
  ASSERT_TRUE(mode) << error.description();
  EXPECT_EQ(*mode, "700");

  // One that deletes it: the removal afterwards fails, and that is the error reported.
  EXPECT_FALSE(wrapper.executeWithPrompts({"/bin/sh", "-c", "rm '" + folder + "'/*; exit 4"}, {},
                                          {}, &error));
  EXPECT_EQ(error.domain(), ExpectScriptErrorDomain);
  EXPECT_EQ(error.code(), -2000);
  EXPECT_EQ(error.localizedDescription(), "No such file or directory");
}

}  // namespace
}  // namespace vesk
