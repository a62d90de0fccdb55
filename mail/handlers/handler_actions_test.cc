// Single-handler actions on the real store inside the test sandbox: an
// update under another template, and a move to the handler's own target.
#include "mail/handlers/handler_actions.h"

#include <filesystem>

#include "testing/handler_fixture.h"

namespace {

using namespace handler_testing;
using HandlerActions = HandlerStore;

TEST_F(HandlerActions, UpdateRecreatesTheHandlerUnderTheTemplateGiven) {
  const std::string old_name = add("recipient", "u@a.example", "antispam", "20");
  ASSERT_EQ("20-antispam-", old_name.substr(0, 12));
  // "spam" finds "antispam" by substring; the re-created handler is "spam".
  ASSERT_EQ(0, handler_update("spam", "recipient", "u@a.example", nullptr, "new ctx", "smtp",
                              nullptr));
  EXPECT_EQ(Strings(), captured_log());
  const std::vector<std::filesystem::path> left(std::filesystem::directory_iterator(kInfo), {});
  ASSERT_EQ(1u, left.size());
  const std::string name = left[0].filename();
  EXPECT_EQ("20-spam-", name.substr(0, 8));
  EXPECT_EQ("new ctx\nsmtp\nu@a.example\n", params(name, {"context", "hook", "recipient"}));
  EXPECT_TRUE(switchedOn("recipient/u@a.example", name));
  EXPECT_FALSE(switchedOn("recipient/u@a.example", old_name));
}

TEST_F(HandlerActions, RenameToTheSameTargetInOtherCaseStillRemovesTheHandler) {
  // The copy search ignores case and so finds the handler itself: nothing
  // is copied, and the rename goes on to remove the original all the same.
  const std::string name = add("recipient", "u@a.example");
  add("recipient", "v@a.example");
  ASSERT_EQ(0, handler_action(name.c_str(), "U@A.example", kHandlerRename));
  EXPECT_EQ(Strings(), captured_log());
  EXPECT_FALSE(testing_support::pathExists(kInfo + name));
  EXPECT_FALSE(testing_support::pathExists("/opt/orb/handlers/smtp/recipient/u@a.example"));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(kInfo), {}));
}

}  // namespace
