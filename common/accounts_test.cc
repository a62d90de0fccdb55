// Account lookup against the sandbox's real password database.
#include "common/accounts.h"

#include <gtest/gtest.h>

#include <cerrno>

TEST(AccountIds, GivesEnoentForAStrangerAndLeavesTheIdsAlone) {
  uid_t uid = 777;
  gid_t gid = 777;
  EXPECT_EQ(-1, account_ids("no-such-account", &uid, &gid));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(777u, uid);
  EXPECT_EQ(777u, gid);
}
