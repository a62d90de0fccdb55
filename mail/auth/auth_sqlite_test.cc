// The pacing of the retry rule; what it repeats is shown by the contention
// tests of the domain operations.
#include "mail/auth/auth_sqlite.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

TEST(SqliteRetry, PauseGrowsByTenMicrosecondsPerAttempt) {
  // 60 attempts are followed by pauses of 0, 10, ..., 590 microseconds,
  // 17.7 ms in all; a fixed or missing pause stays far below that.
  int calls = 0;
  const auto start = std::chrono::steady_clock::now();
  zanth::sqliteRetry([&] { return ++calls; }, [](int rc) { return rc < 60; });
  EXPECT_EQ(60, calls);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(17700));
}

}  // namespace
