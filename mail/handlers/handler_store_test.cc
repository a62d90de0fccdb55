// Handler store: type names, name parsing, the on-disk layout written by
// handler_add, parameter reads, search, update and ordering, checked on the
// real store directories inside the test sandbox.
#include "mail/handlers/handler_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "mail/handlers/handler_test_fixture.h"

namespace {

using handler_testing::kInfo;
using handler_testing::logged;
using testing_support::pathExists;
using HandlerStore = handler_testing::HandlerStoreTest;
using Strings = std::vector<std::string>;

mode_t modeOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 01;
}

std::string linkTarget(const std::string& path) {
  char buf[4096];
  ssize_t n = readlink(path.c_str(), buf, sizeof buf);
  return n < 0 ? "<none>" : std::string(buf, n);
}

// Takes ownership of a returned heap string.
std::string str(char* owned) {
  zanth::handlers::OwnedString holder(owned);
  return holder ? holder.get() : "<null>";
}

TEST(HandlerType, CodesIgnoreCaseAndRejectUnknown) {
  const std::pair<const char*, unsigned> cases[] = {
      {"sender", 0},           {"RECIPIENT", 1},      {"Sender-Domain", 2},
      {"recipient-domain", 3}, {"GLOBAL", 4},         {"", 65535},
      {nullptr, 65535},        {"recipients", 65535}, {"recip", 65535}};
  for (const auto& c : cases)
    EXPECT_EQ(c.second, handler_type_code(c.first)) << (c.first ? c.first : "(null)");
}

TEST_F(HandlerStore, NamesSplitIntoPriorityAndTemplateOrAreRejected) {
  const struct {
    const char *name, *priority, *tmpl, *error;
  } cases[] = {
      {"10-spam-Ab3xYz", "10", "spam", nullptr},
      {"5-anti-spam-Qw12er", "5", "anti-spam", nullptr},
      {"nodash", "<null>", "<null>", "Invalid handler name 'nodash': missing priority section"},
      {"10-spam", "<null>", "<null>", "Invalid handler name '10-spam': missing random part"},
      {"10--Ab3xYz", "<null>", "<null>", "Invalid handler name '10--Ab3xYz': empty template part"},
  };
  for (const auto& c : cases) {
    logged().clear();
    EXPECT_EQ(c.priority, str(handler_priority(c.name))) << c.name;
    EXPECT_EQ(c.tmpl, str(handler_template(c.name))) << c.name;
    EXPECT_EQ(c.error ? Strings(2, c.error) : Strings(), logged()) << c.name;
  }
}

TEST_F(HandlerStore, AddWritesLowerCaseDescriptionAndSwitchesOn) {
  testing_support::TempDir tmp;
  testing_support::writeFile(tmp / "filter", "#!/bin/sh\n", 0755);
  ASSERT_EQ(0, symlink((tmp / "filter").c_str(), (tmp / "link").c_str()));
  std::string name =
      add("RECIPIENT", "User@A.Example", "spam", "10", "some context", (tmp / "link").c_str());
  ASSERT_EQ("10-spam-", name.substr(0, 8));
  EXPECT_EQ(14u, name.size());
  EXPECT_EQ(0755u, modeOf(kInfo + name));
  EXPECT_EQ("recipient\nuser@a.example\nsmtp\nsome context\n",
            param(name, "handler-type") + param(name, "recipient") + param(name, "hook") +
                param(name, "context"));
  EXPECT_EQ(0644u, modeOf(kInfo + name + "/recipient"));
  EXPECT_EQ(tmp / "filter", str(handler_executable(name.c_str())));
  EXPECT_EQ("some context", str(handler_param(name.c_str(), "context")));
  EXPECT_EQ(0755u, modeOf("/opt/orb/handlers/smtp/recipient/user@a.example"));
  EXPECT_EQ(0644u, modeOf("/opt/orb/handlers/smtp/recipient/user@a.example/" + name));

  std::string global = add("global", nullptr, "av", "3", "ctx", "/bin/true", 3);
  EXPECT_EQ("global\n", param(global, "handler-type"));
  EXPECT_EQ("", param(global, "global"));
  EXPECT_FALSE(switchedOn("global", global));
  EXPECT_EQ(0, handler_action(global.c_str(), nullptr, 2));
  EXPECT_TRUE(switchedOn("global", global));
  EXPECT_EQ(global, str(handler_find("av", "global", nullptr, "smtp")));
}

TEST_F(HandlerStore, EmptyValuesWriteNoFileAndOverlongValuesCannotBeRead) {
  std::string name = add("sender", "u@a.example", "spam", "10", "");
  EXPECT_FALSE(pathExists(kInfo + name + "/context"));
  EXPECT_EQ("<null>", str(handler_param(name.c_str(), "context")));
  EXPECT_EQ("No such parameter 'context' for handler '" + name + "'", logged().back());

  const std::string dir = kInfo + name;
  testing_support::writeFile(dir + "/extra", "a much longer old value\n", 0600);
  EXPECT_EQ(0, handler_store_param(dir.c_str(), "extra", "  new  "));
  EXPECT_EQ("  new  \n", testing_support::readFile(dir + "/extra"));
  EXPECT_EQ(0644u, modeOf(dir + "/extra"));
  EXPECT_EQ("new", str(handler_param(name.c_str(), "extra")));
  ASSERT_EQ(0, handler_store_param(dir.c_str(), "extra", std::string(311, 'x').c_str()));
  EXPECT_EQ("<null>", str(handler_param(name.c_str(), "extra")));
}

TEST_F(HandlerStore, FindMatchesTemplateSubstringHookTypeAndTarget) {
  std::string antispam = add("recipient", "u@a.example", "antispam");
  ASSERT_EQ(0, handler_add("spam", "recipient", "v@a.example", "/bin/true", "", "pop3", "10", 2));
  EXPECT_EQ(antispam, str(handler_find("spam", "recipient", "U@A.Example", "smtp")));
  EXPECT_EQ("10-spam-", str(handler_find("spam", "recipient", "v@a.example", "pop3")).substr(0, 8));
  for (const char* miss : {"sender", "Recipient"})
    EXPECT_EQ("<null>", str(handler_find("spam", miss, "u@a.example", "smtp")));
  EXPECT_EQ("<null>", str(handler_find("spam", "recipient", "v@a.example", "smtp")));
  EXPECT_EQ("<null>", str(handler_find("virus", "recipient", "u@a.example", "smtp")));
  EXPECT_EQ("<null>", str(handler_find("spam", "sender", nullptr, "smtp")));
  EXPECT_EQ("Some parameter was not defined", logged().back());
}

TEST_F(HandlerStore, UpdateRecreatesHandlerKeepingWhatIsNotReplaced) {
  std::string on = add("recipient", "u@a.example", "spam", "10", "old context");
  std::string off = add("sender", "u@a.example", "spam", "10", "ctx", "/bin/true", 3);
  ASSERT_EQ(
      0, handler_update("spam", "recipient", "u@a.example", nullptr, "new context", "smtp", "20"));
  ASSERT_EQ(
      0, handler_update("spam", "sender", "u@a.example", "/bin/false", nullptr, "smtp", nullptr));
  std::string moved = str(handler_find("spam", "recipient", "u@a.example", "smtp"));
  std::string updated = str(handler_find("spam", "sender", "u@a.example", "smtp"));
  EXPECT_EQ((std::set<std::string>{moved, updated}), names());
  EXPECT_EQ("20-spam-", moved.substr(0, 8));
  EXPECT_EQ("new context\n/bin/true",
            param(moved, "context") + linkTarget(kInfo + moved + "/executable"));
  EXPECT_TRUE(switchedOn("recipient/u@a.example", moved));
  EXPECT_EQ("10-spam-", updated.substr(0, 8));
  EXPECT_EQ("ctx\n/bin/false",
            param(updated, "context") + linkTarget(kInfo + updated + "/executable"));
  EXPECT_FALSE(switchedOn("sender/u@a.example", updated));
  EXPECT_EQ(-1,
            handler_update("spam", "recipient", "x@a.example", nullptr, nullptr, "smtp", nullptr));
  EXPECT_EQ("Handler spam for x@a.example does not exist in queue smtp", logged().back());
}

TEST_F(HandlerStore, SortOrdersByNumericPriorityThenTemplate) {
  Strings input = {"10-spam-Ab3xYz", "100-a-Zz0000", "9-virus-Qw12er", "10-av-Zz9999",
                   "10-spam-Aa0000"};
  std::vector<char*> names;
  for (std::string& s : input) names.push_back(&s[0]);
  handler_sort(names.data(), names.size());
  EXPECT_EQ((Strings{"9-virus-Qw12er", "10-av-Zz9999", "10-spam-Aa0000", "10-spam-Ab3xYz",
                     "100-a-Zz0000"}),
            Strings(names.begin(), names.end()));
}

}  // namespace
