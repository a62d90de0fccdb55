// User registration on a real database file: a missing domain is created
// and an existing user's row is replaced whole.
#include "mail/auth/auth_users.h"

#include <gtest/gtest.h>

#include "testing/auth_testing.h"

namespace {

using namespace auth_testing;

TEST(AuthUserAdd, CreatesMissingDomainsAndReplacesWholeRows) {
  ScratchDb db(kSeed);
  EXPECT_EQ(0, mail_auth_add_user("dave", "new.test", "pw", kMailAuthDomainDisabled));
  EXPECT_EQ(0, mail_auth_add_user("bob", "example.org", "plain",
                                  kMailAuthPlainColumn | kMailAuthUserDisabled));
  EXPECT_EQ((Rows{"example.org|0|alice|NULL|a1|0", "example.org|0|bob|NULL|plain|1",
                  "new.test|1|dave|pw|NULL|0"}),
            db.rows("SELECT d.name, d.status, u.name, u.userPassword, u.cmusaslsecretPLAIN, "
                    "u.status FROM users u JOIN domains d ON u.dom_id = d.id WHERE d.id <> 2 "
                    "ORDER BY d.name, u.name"));
}

}  // namespace
