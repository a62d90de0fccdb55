// Users and domains on a real database file: what readers are handed, and
// the rows every change a panel makes takes away and adds.
#include "mail/auth/auth_users.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "testing/auth_testing.h"

namespace {

using namespace auth_testing;

// Each user a reader is handed: "address password flags", one per call.
int record(const char* address, const char* password, int flags, void* calls) {
  *static_cast<std::string*>(calls) += std::string(address) + " " +
                                       (password ? password : "(null)") + " " +
                                       std::to_string(flags) + "\n";
  return 2;
}

int listAll(const char*, mail_auth_user_fn callback, void* calls) {
  return mail_auth_list_users(callback, calls);
}

TEST(AuthUserReads, HandEachUserWithPasswordAndFlagsInOrder) {
  ScratchDb db(kSeed + std::string("INSERT INTO users (dom_id, name) VALUES (1, 'nopass');"));
  const struct {
    int (*read)(const char*, mail_auth_user_fn, void*);
    const char* argument;
    int result;
    std::string calls;  // as record writes them
  } cases[] = {
      {mail_auth_get_user, "bob@example.org", 2, "bob@example.org b1 0\n"},
      {mail_auth_get_user, "alice@example.org", 2, "alice@example.org a1 1\n"},  // the plain column
      {mail_auth_get_user, "carol@example.com", 2,
       "carol@example.com c1 6\n"},  // user and domain disabled
      {mail_auth_get_user, "dave@example.org", 1, ""},
      {mail_auth_get_user, "nopass@example.org", -1, ""},
      {mail_auth_get_user, "bob@", -1, ""},
      {listAll, "", 2, "carol@example.com c1 6\nalice@example.org a1 1\nbob@example.org b1 0\n"},
      {mail_auth_list_users_named, "bob", 2, "bob@example.org b1 0\n"},
  };
  for (const auto& c : cases) {
    std::string calls;
    EXPECT_EQ(c.result, c.read(c.argument, record, &calls)) << c.argument;
    EXPECT_EQ(c.calls, calls) << c.argument;
  }

  mail_auth_user_record found{};
  ASSERT_EQ(0, mail_auth_fetch_user(&found, "alice", "example.org"));
  EXPECT_EQ("alice a1 1",
            std::string(found.name) + " " + found.password + " " + std::to_string(found.flags));
  mail_auth_free_record(&found);
  EXPECT_EQ(0, mail_auth_fetch_user(&found, "dave", "example.org"));
  EXPECT_EQ(nullptr, found.name);
  EXPECT_EQ(-1, mail_auth_fetch_user(&found, "bob", "nowhere.test"));
}

// Domains "id|name|status", then users "domain|name|userPassword|plain|status".
Rows tables(const ScratchDb& db) {
  Rows all = db.rows("SELECT id || '|' || name || '|' || status FROM domains ORDER BY id");
  for (const std::string& row :
       db.rows("SELECT d.name, u.name, u.userPassword, u.cmusaslsecretPLAIN, u.status "
               "FROM users u JOIN domains d ON u.dom_id = d.id ORDER BY d.name, u.name"))
    all.push_back(row);
  return all;
}

// Every change a panel makes, each on a fresh copy of the seed: the
// rows it took away ("-") and the rows it added ("+").
TEST(AuthDatabaseWrites, ChangeExactlyTheRowsAsked) {
  const struct {
    const char* what;
    int (*write)();
    Rows changed;  // "-" before a row taken away, "+" before one added
  } cases[] = {
      {"add creates the domain",
       [] { return mail_auth_add_user("dave", "new.test", "pw", kMailAuthDomainDisabled); },
       {"+3|new.test|1", "+new.test|dave|pw|NULL|0"}},
      {"add replaces a whole row",
       [] {
         return mail_auth_add_user("bob", "example.org", "p",
                                   kMailAuthPlainColumn | kMailAuthUserDisabled);
       },
       {"-example.org|bob|b1|NULL|0", "+example.org|bob|NULL|p|1"}},
      {"clone into a new domain",
       [] { return mail_auth_clone_user("alice", "example.org", "al", "new.test"); },
       {"+3|new.test|0", "+new.test|al|NULL|a1|0"}},
      {"rename",
       [] { return mail_auth_rename_user("bob", "robert", "example.org"); },
       {"-example.org|bob|b1|NULL|0", "+example.org|robert|b1|NULL|0"}},
      {"remove",
       [] {
         return mail_auth_remove_user("bob", "example.org") +
                mail_auth_remove_user("bob", "no.test");
       },
       {"-example.org|bob|b1|NULL|0"}},
      {"empty password removes",
       [] { return mail_auth_set_or_remove_user("alice", "example.org", "", 0); },
       {"-example.org|alice|NULL|a1|0"}},
      {"password sets",
       [] { return mail_auth_set_or_remove_user("alice", "example.org", "x", 0); },
       {"-example.org|alice|NULL|a1|0", "+example.org|alice|x|NULL|0"}},
      {"domain removed with its users",
       [] { return mail_auth_remove_domain("example.com"); },
       {"-2|example.com|1", "-example.com|carol|c1|NULL|1"}},
      {"domain status",
       [] {
         return mail_auth_set_domain_status("example.org", 3) +
                mail_auth_enable_domain("example.com");
       },
       {"-1|example.org|0", "-2|example.com|1", "+1|example.org|3", "+2|example.com|0"}},
  };
  for (const auto& c : cases) {
    ScratchDb db(kSeed);
    const Rows before = tables(db);
    EXPECT_EQ(0, c.write()) << c.what;
    const Rows after = tables(db);
    Rows changed;
    for (const std::string& row : before)
      if (std::find(after.begin(), after.end(), row) == after.end()) changed.push_back("-" + row);
    for (const std::string& row : after)
      if (std::find(before.begin(), before.end(), row) == before.end())
        changed.push_back("+" + row);
    EXPECT_EQ(c.changed, changed) << c.what;
    EXPECT_EQ(Rows(), captured_log()) << c.what;
  }
}

}  // namespace
