// User operations on a real database file: registration into unknown
// domains and replacement of rows, and lookups and listings through a
// callback.
#include "mail/auth/auth_users.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "mail/auth/auth_testing.h"

namespace {

using auth_testing::kSeed;
using auth_testing::LogCapture;
using auth_testing::Rows;
using auth_testing::ScratchDb;

// "domain|domain status|name|userPassword|cmusaslsecretPLAIN|status".
Rows users(const ScratchDb& db, const std::string& where = "1") {
  return db.rows(
      "SELECT d.name, d.status, u.name, u.userPassword, u.cmusaslsecretPLAIN, u.status FROM "
      "users u JOIN domains d ON u.dom_id = d.id WHERE " + where + " ORDER BY d.name, u.name");
}

// Records each call as "address|password|flags" and gives the scripted
// answers in turn, the last one repeating.
struct Recorder {
  std::vector<int> answers{1};
  Rows calls;

  static int callback(const char* address, const char* password, int flags, void* context) {
    auto* self = static_cast<Recorder*>(context);
    self->calls.push_back(std::string(address) + "|" + (password ? password : "NULL") + "|" +
                          std::to_string(flags));
    return self->answers[std::min(self->calls.size(), self->answers.size()) - 1];
  }
};

TEST(AuthUserAdd, CreatesMissingDomainsAndReplacesWholeRows) {
  ScratchDb db(kSeed);
  EXPECT_EQ(0, mail_auth_add_user("dave", "new.test", "pw", kMailAuthDomainDisabled));
  EXPECT_EQ(0, mail_auth_add_user("erin", "other.test", "s3",
                                  kMailAuthPlainColumn | kMailAuthUserDisabled));
  EXPECT_EQ(0, mail_auth_add_user("alice", "example.org", "fresh", 0));
  EXPECT_EQ(0, mail_auth_add_user("bob", "example.org", "plain", kMailAuthPlainColumn));
  EXPECT_EQ((Rows{"example.org|0|alice|fresh|NULL|0", "example.org|0|bob|NULL|plain|0",
                  "new.test|1|dave|pw|NULL|0", "other.test|0|erin|NULL|s3|1"}),
            users(db, "d.id <> 2"));
}

TEST(AuthUserGet, InvalidAddressesFailBeforeTheDatabaseIsOpened) {
  auth_testing::PathGuard guard;
  mail_auth_set_path("/nonexistent-dir/passwd.db");  // opening would log too
  for (const char* address : {"user", "@example.org", "user@"}) {
    LogCapture log;
    Recorder recorder;
    EXPECT_EQ(-1, mail_auth_get_user(address, Recorder::callback, &recorder)) << address;
    EXPECT_EQ(Rows{std::string("3:Invalid mail address '") + address + "'"}, log.lines());
  }
}

TEST(AuthUserGet, AnswersWithTheCallbackOrOneWhenMissing) {
  ScratchDb db(std::string(kSeed) + "INSERT INTO users (dom_id, name) VALUES (1, 'nopw');");
  LogCapture log;
  Recorder recorder;
  recorder.answers = {7};
  EXPECT_EQ(7, mail_auth_get_user("carol@example.com", Recorder::callback, &recorder));
  EXPECT_EQ(1, mail_auth_get_user("carol@example.org", Recorder::callback, &recorder));
  EXPECT_EQ(-1, mail_auth_get_user("nopw@example.org", Recorder::callback, &recorder));
  EXPECT_EQ((Rows{"carol@example.com|c1|6"}), recorder.calls);
  EXPECT_EQ((Rows{"6:No such user 'carol@example.org' in mail authorization database",
                  "6:NULL password fields (noth plain and encrypted) for user nopw@example.org, "
                  "skipped"}),
            log.lines());
}

TEST(AuthUserList, OrdersByDomainThenNameAndSkipsUsersWithoutPasswords) {
  ScratchDb db(std::string(kSeed) +
               "INSERT INTO domains (id, name) VALUES (3, 'a.test');"
               "INSERT INTO users (dom_id, name, userPassword) VALUES"
               " (3, 'zz', 'z'), (3, 'aa', NULL), (2, 'bob', 'b2');");
  LogCapture log;
  Recorder all;
  EXPECT_EQ(1, mail_auth_list_users(Recorder::callback, &all));
  EXPECT_EQ((Rows{"zz@a.test|z|0", "bob@example.com|b2|4", "carol@example.com|c1|6",
                  "alice@example.org|a1|1", "bob@example.org|b1|0"}),
            all.calls);
  EXPECT_EQ(Rows{"6:empty password properties (both plain and encrypted) for user aa@a.test, "
                 "skipped"},
            log.lines());
}

TEST(AuthUserList, CallbackAnswerStopsTheListingAndBecomesTheResult) {
  ScratchDb db(kSeed);
  Recorder stop;
  stop.answers = {0};
  EXPECT_EQ(0, mail_auth_list_users(Recorder::callback, &stop));
  EXPECT_EQ(1u, stop.calls.size());
  Recorder later;
  later.answers = {3, -5};
  EXPECT_EQ(-5, mail_auth_list_users(Recorder::callback, &later));
  EXPECT_EQ(2u, later.calls.size());
  ScratchDb empty;
  EXPECT_EQ(1, mail_auth_list_users(Recorder::callback, &stop)) << "nothing listed";
}

}  // namespace
