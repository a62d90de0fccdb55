// The domain rename the tool runs, on a real database file, also while
// another process holds a write transaction on it.
#include "mail/auth/auth_domains.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "mail/auth/auth_testing.h"

namespace {

using auth_testing::kSeed;
using auth_testing::LogCapture;
using auth_testing::Rows;
using auth_testing::ScratchDb;

constexpr char kDomains[] = "SELECT id, name, status FROM domains ORDER BY id";
constexpr char kAddresses[] =
    "SELECT u.name || '@' || d.name FROM users u JOIN domains d ON u.dom_id = d.id "
    "ORDER BY d.name, u.name";
const Rows kSeedDomains = {"1|example.org|0", "2|example.com|1"};

TEST(AuthDomainRename, RenamesTheRowAndItsUsersFollow) {
  ScratchDb db(kSeed);
  LogCapture log;
  EXPECT_EQ(0, mail_auth_rename_domain("example.org", "example.net"));
  EXPECT_EQ((Rows{"1|example.net|0", "2|example.com|1"}), db.rows(kDomains));
  EXPECT_EQ((Rows{"carol@example.com", "alice@example.net", "bob@example.net"}),
            db.rows(kAddresses));
  EXPECT_EQ(0, mail_auth_rename_domain("nowhere.test", "example.biz")) << "absent old name";
  EXPECT_EQ((Rows{"1|example.net|0", "2|example.com|1"}), db.rows(kDomains));
  EXPECT_TRUE(log.lines().empty());
}

TEST(AuthDomainRename, TakenNewNameFailsOnBothStreamsAndKeepsRows) {
  ScratchDb db(kSeed);
  testing_support::TempDir out;
  fflush(nullptr);
  const pid_t pid = fork();  // the default hook must write to real streams
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (!freopen((out / "1").c_str(), "w", stdout) || !freopen((out / "2").c_str(), "w", stderr))
      _exit(2);
    const int rc = mail_auth_rename_domain("example.org", "example.com");
    fflush(nullptr);
    _exit(rc == -1 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_EQ(0, status) << "the result was not -1";
  const std::string message =
      "Unable to execute the mail domain authorization name change query: "
      "UNIQUE constraint failed: domains.name\n";
  EXPECT_EQ(message, testing_support::readFile(out / "1"));
  EXPECT_EQ(message, testing_support::readFile(out / "2"));
  EXPECT_EQ(kSeedDomains, db.rows(kDomains));
  EXPECT_EQ((Rows{"carol@example.com", "alice@example.org", "bob@example.org"}),
            db.rows(kAddresses));
}

// Another process opens a write transaction (EXCLUSIVE keeps us from even
// preparing, IMMEDIATE from writing), changes a status, holds it for kHold
// and commits. The rename has to wait for it and then succeed.
class AuthDomainContention : public testing::TestWithParam<const char*> {};

TEST_P(AuthDomainContention, RenameWaitsForAnotherWriter) {
  constexpr auto kHold = std::chrono::milliseconds(700);
  ScratchDb db(kSeed);
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  fflush(nullptr);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    sqlite3* other = nullptr;
    const std::string begin =
        std::string(GetParam()) + "; UPDATE domains SET status = 5 WHERE name = 'example.org'";
    if (sqlite3_open(db.path().c_str(), &other) != SQLITE_OK ||
        sqlite3_exec(other, begin.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK ||
        write(ready[1], "x", 1) != 1)
      _exit(1);
    usleep(std::chrono::microseconds(kHold).count());
    _exit(sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : 3);
  }
  close(ready[1]);
  char byte;
  ASSERT_EQ(1, read(ready[0], &byte, 1)) << "the other writer never got its lock";
  close(ready[0]);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(0, mail_auth_rename_domain("example.org", "example.net"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, kHold - std::chrono::milliseconds(100));
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ((Rows{"1|example.net|5", "2|example.com|1"}), db.rows(kDomains))
      << "the other writer's change and ours must both be there";
}

INSTANTIATE_TEST_SUITE_P(LockKinds, AuthDomainContention,
                         testing::Values("BEGIN EXCLUSIVE", "BEGIN IMMEDIATE"));

}  // namespace
