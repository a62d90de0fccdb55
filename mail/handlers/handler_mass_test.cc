// Mass operations on the real store inside the test sandbox: the domain
// rename, failure counting, and the actions on a whole template.
#include "mail/handlers/handler_mass.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <utility>

#include "testing/handler_fixture.h"

namespace {

using namespace handler_testing;
using HandlerMass = HandlerStore;

TEST_F(HandlerMass, DomainRenameMovesHandlersOfTheDomainOnly) {
  add("recipient", "u@a.example");
  add("recipient-domain", "a.example", "virus", "9", "/bin/false");
  const std::string untouched[] = {add("recipient", "u@a.example.org"), add("global", nullptr),
                                   add("recipient-domain", "xa.example"),
                                   add("sender-domain", "a.example.org")};
  ASSERT_EQ(0, handlers_act_on_target("a.example", "b.example", kHandlerRename));
  EXPECT_EQ(Strings(), captured_log());

  const std::string moved = str(handler_find("spam", "recipient", "u@b.example", "smtp"));
  const std::string moved_dom = str(handler_find("virus", "recipient-domain", "b.example", "smtp"));
  EXPECT_EQ("9-virus-", moved_dom.substr(0, 8));  // its own priority kept
  EXPECT_EQ("ctx\nsmtp\nrecipient\nu@b.example\n",
            params(moved, {"context", "hook", "handler-type", "recipient"}));
  EXPECT_EQ(str(realpath("/bin/false", nullptr)), str(handler_executable(moved_dom.c_str())));
  EXPECT_TRUE(switchedOn("recipient/u@b.example", moved));
  EXPECT_TRUE(switchedOn("recipient-domain/b.example", moved_dom));
  for (const std::string& name : untouched)
    EXPECT_EQ(1, handler_action(name.c_str(), nullptr, kHandlerQuery)) << name;
  EXPECT_EQ(6, std::distance(std::filesystem::directory_iterator(kInfo), {}))
      << "the old descriptions must be gone";
}

TEST_F(HandlerMass, MassOperationCountsDamagedHandlersAndGoesOn) {
  const std::string no_type = add("recipient", "u@a.example");
  const std::string no_value = add("sender", "v@a.example");
  const std::string no_program = add("recipient-domain", "a.example");
  add("sender-domain", "a.example");
  for (const std::string& file :
       {no_type + "/handler-type", no_value + "/sender", no_program + "/executable"})
    ASSERT_EQ(0, unlink((kInfo + file).c_str())) << file;
  EXPECT_EQ(-1, handlers_act_on_target("a.example", "b.example", kHandlerRename));
  const Strings log = captured_log();
  for (const std::string& message : {"3:Unable to get type of handler: " + no_type + "\n",
                                     "3:Unable to get mailname from handler: " + no_value + "\n",
                                     "3:Unable to exec action for handler: " + no_program + "\n"})
    EXPECT_NE(log.end(), std::find(log.begin(), log.end(), message)) << message;
  EXPECT_EQ("3:Some errors was occured in mass hook operation. errors: 3", log.back());
  EXPECT_NE("<null>", str(handler_find("spam", "sender-domain", "b.example", "smtp")));
}

TEST_F(HandlerMass, DomainRenameReusesACopyTheSearchFinds) {
  // The copy search matches templates as substrings: "spam" takes the
  // antispam handler already serving u@b.example as its copy.
  const std::string existing = add("recipient", "u@b.example", "antispam");
  add("recipient", "u@a.example", "spam");
  add("sender", "v@a.example", "spam");
  add("sender", "w@a.example", "virus");
  ASSERT_EQ(0, handlers_act_on_target("a.example", "b.example", kHandlerRename));
  EXPECT_EQ(Strings(), captured_log());
  EXPECT_EQ(3, std::distance(std::filesystem::directory_iterator(kInfo), {}));
  EXPECT_EQ(existing, str(handler_find("spam", "recipient", "u@b.example", "smtp")));
  EXPECT_TRUE(switchedOn("recipient/u@b.example", existing));
  EXPECT_NE("<null>", str(handler_find("spam", "sender", "v@b.example", "smtp")));
  EXPECT_NE("<null>", str(handler_find("virus", "sender", "w@b.example", "smtp")));
  EXPECT_FALSE(testing_support::pathExists("/opt/orb/handlers/smtp/recipient/u@a.example"));
}

// Handlers of templates spam, spam, antispam and virus, then one action on
// a template; each handler is then "on", "off" or "gone".
TEST_F(HandlerMass, TemplateActionTakesTheWholeTemplateNameOrAll) {
  struct Row {
    const char* tmpl;
    int action;
    int result;
    const char* states;
  };
  const Row rows[] = {
      {"spam", kHandlerSwitchOff, 0, "off off on on"},
      {"all", kHandlerSwitchOff, 0, "off off off off"},
      {"spam", kHandlerRemove, 0, "gone gone on on"},
      {"Spam", kHandlerRemove, 0, "on on on on"},
      {"virus", kHandlerRename, -1, "on on on on"},  // no new target: each one fails
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.tmpl) + " " + std::to_string(row.action));
    SetUp();
    const std::string names[] = {add("recipient", "u@a.example"), add("sender", "v@a.example"),
                                 add("recipient", "w@a.example", "antispam"),
                                 add("recipient", "x@a.example", "virus")};
    EXPECT_EQ(row.result, handlers_act_on_template(row.tmpl, row.action));
    std::string states;
    for (const std::string& name : names)
      states += std::string(states.empty() ? "" : " ") +
                (!testing_support::pathExists(kInfo + name)                  ? "gone"
                 : handler_action(name.c_str(), nullptr, kHandlerQuery) == 1 ? "on"
                                                                             : "off");
    EXPECT_EQ(row.states, states);
    if (row.result == 0) {
      EXPECT_EQ(Strings(), captured_log());
    }
  }
}

// A write of the domain rename failing from a real cause: the cause is
// reported once where it happens, and each level above adds its own line
// once ({old}: the handler moved, {new}: the description of its copy).
TEST_F(HandlerMass, WriteFailureIsLoggedOnceAtEachLevel) {
  const struct {
    const char* fault;
    const char* before_add;  // shell commands around adding the handler
    const char* after_add;
    const char* undo;
    const char* cause;  // the file helper's report
    Strings logged;
  } rows[] = {
      {"queue directory cannot be made",
       "true",
       "mount --bind /opt/orb/handlers/smtp /opt/orb/handlers/smtp && "
       "mount -o remount,bind,ro /opt/orb/handlers/smtp",
       "umount /opt/orb/handlers/smtp",
       "Cannot create directory /opt/orb/handlers/smtp/recipient/u@b.example: ",
       {"3:Unable to create directory '/opt/orb/handlers/smtp/recipient/u@b.example'"}},
      // The store is filled up to one free inode, which the copy's
      // description directory takes: its first parameter file fails.
      {"parameter file cannot be written",
       "mount -t tmpfs -o nr_inodes=64 none /opt/orb/handlers && mkdir /opt/orb/handlers/info",
       "mkdir /opt/orb/handlers/fill && i=0; while touch /opt/orb/handlers/fill/$i 2>/dev/null; "
       "do i=$((i+1)); done; rm /opt/orb/handlers/fill/0",
       "umount /opt/orb/handlers",
       "Unable to truncate or create file {new}/hook: ",
       {"3:Unable to create file '{new}/hook'",
        "3:Unable to store handler parameters into directory '{new}'"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fault);
    SetUp();
    ASSERT_EQ(0, testing_support::shell(row.before_add).exitCode());
    const std::string old_name = add("recipient", "u@a.example");
    ASSERT_EQ(0, testing_support::shell(row.after_add).exitCode());
    testing_support::log_capture->clear();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int result = handlers_act_on_target("a.example", "b.example", kHandlerRename);
    const std::string err = testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    std::string new_dir;
    for (const auto& entry : std::filesystem::directory_iterator(kInfo))
      if (entry.path().filename() != old_name) new_dir = entry.path();
    testing_support::shell(row.undo);

    auto filled = [&](std::string text) {
      for (const auto& [key, value] : {std::pair{"{old}", old_name}, {"{new}", new_dir}})
        for (size_t at; (at = text.find(key)) != std::string::npos;)
          text.replace(at, std::strlen(key), value);
      return text;
    };
    EXPECT_EQ(-1, result);
    const std::string cause = filled(row.cause);
    const size_t first = err.find(cause);
    EXPECT_NE(std::string::npos, first) << err;
    EXPECT_EQ(std::string::npos, err.find(cause, first + 1)) << err;
    Strings expected;
    for (const std::string& line : row.logged) expected.push_back(filled(line));
    expected.push_back(filled("3:Unable to exec action for handler: {old}\n"));
    expected.push_back("3:Some errors was occured in mass hook operation. errors: 1");
    EXPECT_EQ(expected, captured_log());
  }
}

}  // namespace
