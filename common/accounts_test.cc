// Account lookup against the sandbox's real password database.
#include "common/accounts.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "testing/test_support.h"

namespace {

using testing_support::shell;

TEST(AccountIds, GivesTheIdsIdReportsAndEnoentForAStranger) {
  uid_t uid = 12345;
  gid_t gid = 12345;
  ASSERT_EQ(0, account_ids("popuser", &uid, &gid));
  EXPECT_EQ(std::stoul(shell("id -u popuser").out), uid);
  EXPECT_EQ(std::stoul(shell("id -g popuser").out), gid);

  uid = gid = 777;
  errno = 0;
  EXPECT_EQ(-1, account_ids("no-such-account", &uid, &gid));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(777u, uid);
  EXPECT_EQ(777u, gid);
}

}  // namespace
