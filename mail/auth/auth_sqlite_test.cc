// The retry rule under real contention: another process holds a write
// transaction for kHold; the domain rename waits for it, then succeeds.
#include "mail/auth/auth_sqlite.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "mail/auth/auth_domains.h"
#include "testing/auth_testing.h"

namespace {

using namespace auth_testing;

// EXCLUSIVE keeps the rename from even preparing, IMMEDIATE from writing.
class AuthDomainContention : public testing::TestWithParam<const char*> {};

TEST_P(AuthDomainContention, RenameWaitsForAnotherWriter) {
  constexpr auto kHold = std::chrono::milliseconds(200);
  ScratchDb db(kSeed);
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    sqlite3* other = nullptr;
    const std::string begin = std::string(GetParam()) + "; UPDATE domains SET status=5 WHERE id=1";
    if (sqlite3_open(db.path.c_str(), &other) != SQLITE_OK ||
        sqlite3_exec(other, begin.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK ||
        write(ready[1], "x", 1) != 1)
      _exit(1);
    usleep(std::chrono::microseconds(kHold).count());
    _exit(sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : 3);
  }
  close(ready[1]);
  char byte;
  ASSERT_EQ(1, read(ready[0], &byte, 1)) << "the other writer never got its lock";
  EXPECT_EQ(0, mail_auth_rename_domain("example.org", "example.net"));
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ((Rows{"1|example.net|5", "2|example.com|1"}),
            db.rows("SELECT id, name, status FROM domains ORDER BY id"));  // both changes
}

INSTANTIATE_TEST_SUITE_P(LockKinds, AuthDomainContention,
                         testing::Values("BEGIN EXCLUSIVE", "BEGIN IMMEDIATE"));

}  // namespace
