// The domain rename the tool runs, on a real database file; its behaviour
// under contention is in auth_sqlite_test.cc.
#include "mail/auth/auth_domains.h"

#include <gtest/gtest.h>

#include "testing/auth_testing.h"

namespace {

using namespace auth_testing;

TEST(AuthDomainRename, UsersFollowAbsentNamesAreSkippedTakenNamesRefused) {
  ScratchDb db(kSeed);
  const char kDomains[] = "SELECT id, name, status FROM domains ORDER BY id";
  EXPECT_EQ(0, mail_auth_rename_domain("example.org", "example.net"));
  EXPECT_EQ(0, mail_auth_rename_domain("nowhere.test", "example.biz"));
  EXPECT_EQ((Rows{"1|example.net|0", "2|example.com|1"}), db.rows(kDomains));
  EXPECT_EQ((Rows{"carol@example.com", "alice@example.net", "bob@example.net"}),
            db.rows("SELECT u.name || '@' || d.name FROM users u JOIN domains d "
                    "ON u.dom_id = d.id ORDER BY d.name, u.name"));
  EXPECT_TRUE(captured_log.empty());

  EXPECT_EQ(-1, mail_auth_rename_domain("example.net", "example.com"));
  EXPECT_EQ(Rows{"3:Unable to execute the mail domain authorization name change query: "
                 "UNIQUE constraint failed: domains.name"},
            captured_log);
  EXPECT_EQ((Rows{"1|example.net|0", "2|example.com|1"}), db.rows(kDomains));
}

}  // namespace
