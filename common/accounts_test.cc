// Account lookup against the sandbox's real password database.
#include "common/accounts.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "testing/test_support.h"

TEST(AccountIds, GivesTheIdsIdReportsAndEnoentForAStranger) {
  uid_t uid = 777;
  gid_t gid = 777;
  EXPECT_EQ(-1, account_ids("no-such-account", &uid, &gid));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(777u, uid);
  ASSERT_EQ(0, account_ids("popuser", &uid, &gid));
  EXPECT_EQ(testing_support::shell("id -u popuser; id -g popuser").out,
            std::to_string(uid) + "\n" + std::to_string(gid) + "\n");
}
