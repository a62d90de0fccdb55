// Handler actions and mass operations on the real store inside the test
// sandbox: the domain rename, switching, removal, failure counting and the
// refresh program (a real script at its fixed path that records its runs).
#include "mail/handlers/handler_actions.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "mail/handlers/handler_test_fixture.h"

namespace {

using handler_testing::kInfo;
using handler_testing::logged;
using testing_support::pathExists;
using HandlerActions = handler_testing::HandlerStoreTest;
using Names = std::set<std::string>;

const std::string kRefreshLog = "/run/handlers-refresh.log";

void installRefresh(const std::string& body, mode_t mode = 0755) {
  testing_support::writeFile(kHandlersRefreshProgram,
                             "#!/bin/sh\necho \"$@\" >> " + kRefreshLog + "\n" + body, mode);
}

std::string found(const char* type, const char* target, const char* tmpl = "spam") {
  zanth::handlers::OwnedString name(handler_find(tmpl, type, target, "smtp"));
  return name ? name.get() : "";
}

bool wasLogged(const std::string& message) {
  return std::find(logged().begin(), logged().end(), message) != logged().end();
}

TEST_F(HandlerActions, DomainRenameMovesHandlersOfTheDomainOnly) {
  installRefresh("");
  std::string mailbox = add("recipient", "u@a.example", "spam", "10", "box ctx");
  std::string domain = add("recipient-domain", "a.example", "virus", "9");
  std::string sender_off = add("sender", "w@a.example", "spam", "7", "ctx", "/bin/false", 3);
  std::vector<std::string> untouched = {
      add("recipient", "u@a.example.org"), add("recipient-domain", "xa.example"),
      add("sender-domain", "a.example.org"), add("global", nullptr)};
  ASSERT_EQ(0, handlers_act_on_target("a.example", "b.example", 6));
  EXPECT_TRUE(logged().empty()) << logged().front();
  for (const std::string& old : {mailbox, domain, sender_off})
    EXPECT_FALSE(pathExists(kInfo + old)) << old;
  EXPECT_FALSE(pathExists("/opt/orb/handlers/smtp/recipient/u@a.example"));
  EXPECT_FALSE(pathExists("/opt/orb/handlers/smtp/recipient-domain/a.example"));

  std::string moved = found("recipient", "u@b.example");
  ASSERT_EQ("10-spam-", moved.substr(0, 8));
  EXPECT_EQ("box ctx\nsmtp\nrecipient\nu@b.example\n",
            param(moved, "context") + param(moved, "hook") + param(moved, "handler-type") +
                param(moved, "recipient"));
  EXPECT_TRUE(switchedOn("recipient/u@b.example", moved));
  std::string moved_domain = found("recipient-domain", "b.example", "virus");
  EXPECT_EQ("9-virus-", moved_domain.substr(0, 8));
  EXPECT_TRUE(switchedOn("recipient-domain/b.example", moved_domain));
  // A switched-off handler comes back switched on, with its own program.
  std::string moved_sender = found("sender", "w@b.example");
  EXPECT_TRUE(switchedOn("sender/w@b.example", moved_sender));
  zanth::handlers::OwnedString program(handler_executable(moved_sender.c_str())),
      false_path(realpath("/bin/false", nullptr));
  EXPECT_STREQ(false_path.get(), program.get());

  for (const std::string& name : untouched)
    EXPECT_EQ(1, handler_action(name.c_str(), nullptr, 4)) << name;
  EXPECT_EQ(untouched.size() + 3, names().size());
  std::istringstream runs(testing_support::readFile(kRefreshLog));
  int count = 0;
  for (std::string line; std::getline(runs, line); ++count) EXPECT_EQ("refresh", line);
  EXPECT_GE(count, 3);
}

TEST_F(HandlerActions, MassOperationCountsDamagedHandlersAndGoesOn) {
  std::string no_type = add("recipient", "u@a.example");
  std::string no_value = add("sender", "v@a.example");
  std::string no_program = add("recipient-domain", "a.example");
  std::string good = add("sender-domain", "a.example");
  ASSERT_EQ(0, unlink((kInfo + no_type + "/handler-type").c_str()));
  ASSERT_EQ(0, unlink((kInfo + no_value + "/sender").c_str()));
  ASSERT_EQ(0, unlink((kInfo + no_program + "/executable").c_str()));
  EXPECT_EQ(-1, handlers_act_on_target("a.example", "b.example", 6));
  EXPECT_TRUE(wasLogged("Unable to get type of handler: " + no_type + "\n"));
  EXPECT_TRUE(wasLogged("Unable to get mailname from handler: " + no_value + "\n"));
  EXPECT_TRUE(wasLogged("Unable to exec action for handler: " + no_program + "\n"));
  EXPECT_EQ("Some errors was occured in mass hook operation. errors: 3", logged().back());
  // The handler whose copy failed stays as it was; the good one moved.
  EXPECT_TRUE(switchedOn("recipient-domain/a.example", no_program));
  EXPECT_FALSE(pathExists(kInfo + good));
  EXPECT_NE("", found("sender-domain", "b.example"));
}

TEST_F(HandlerActions, RenameOntoExistingCopyOnlyRemovesTheOld) {
  add("recipient", "u@a.example");
  std::string copy = add("recipient", "u@b.example", "spam", "20", "copy ctx");
  std::string other = add("recipient", "u@c.example");
  ASSERT_EQ(0, handlers_act_on_target("a.example", "b.example", 6));
  EXPECT_EQ((Names{copy, other}), names());
  EXPECT_EQ("copy ctx\n", param(copy, "context"));
  // Moving a handler to the target it already has keeps it.
  ASSERT_EQ(0, handler_action(other.c_str(), "u@c.example", 6));
  EXPECT_EQ((Names{copy, other}), names());
}

TEST_F(HandlerActions, SwitchingFollowsTheEntryFileAndDropsEmptyQueues) {
  std::string first = add("recipient-domain", "a.example");
  std::string second = add("recipient-domain", "a.example", "virus");
  EXPECT_EQ(0, handlers_act_on_target("a.example", nullptr, 3));
  EXPECT_FALSE(pathExists("/opt/orb/handlers/smtp/recipient-domain/a.example"));
  EXPECT_EQ(0, handler_action(first.c_str(), nullptr, 4));
  EXPECT_EQ(0, handler_action(first.c_str(), nullptr, 2));
  EXPECT_EQ(0, handler_action(second.c_str(), nullptr, 2));
  EXPECT_EQ(0, handler_action(first.c_str(), nullptr, 1));
  EXPECT_EQ((Names{second}), names());
  EXPECT_FALSE(switchedOn("recipient-domain/a.example", first));
  EXPECT_TRUE(switchedOn("recipient-domain/a.example", second));
  EXPECT_EQ(-1, handler_action(second.c_str(), nullptr, 7));
  EXPECT_EQ("UKNOWN ACTION 7 requested for handler " + second, logged().back());
}

TEST_F(HandlerActions, TemplateOperationMatchesWholeTemplateOrAll) {
  EXPECT_EQ(0, handlers_act_on_template("all", 1));
  std::string spam = add("sender", "u@a.example", "spam");
  std::string antispam = add("sender", "v@a.example", "antispam");
  EXPECT_EQ(0, handlers_act_on_template("spam", 1));
  EXPECT_EQ((Names{antispam}), names());
  ASSERT_EQ(0, mkdir((kInfo + "stray").c_str(), 0755));
  EXPECT_EQ(-1, handlers_act_on_template("all", 1));
  EXPECT_EQ("Some errors was occured in mass hook operation. errors: 1", logged().back());
  EXPECT_EQ((Names{"stray"}), names());
}

TEST_F(HandlerActions, RefreshRunsOnlyAnExecutableProgram) {
  std::string name = add("sender", "u@a.example");
  for (mode_t mode : {0000, 0644}) {
    if (mode != 0) installRefresh("", mode);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, handler_action(name.c_str(), nullptr, 2));
    EXPECT_EQ("", testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr());
    EXPECT_FALSE(pathExists(kRefreshLog));
  }
  EXPECT_TRUE(logged().empty());
  installRefresh("echo sync failed >&2\nexit 3\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, handler_action(name.c_str(), nullptr, 2));
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("sync failed"));
  EXPECT_EQ(std::vector<std::string>{"Cannot sync tmps storage to fs"}, logged());
  EXPECT_EQ("refresh\n", testing_support::readFile(kRefreshLog));
}

}  // namespace
