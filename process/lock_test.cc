// Lock files and semaphores: a held lock refuses a try and holds a waiter
// (seen blocked in /proc/locks) until it is released; a semaphore byte held
// by one process is refused to another on that byte only, and free again
// once unlocked.
#include "process/lock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <future>
#include <stdexcept>
#include <string>

#include "common/errors.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

TEST(LockFile, HeldLockRefusesATryAndHoldsAWaiterUntilReleased) {
  // Lock files conflict between open files, so a second thread contends
  // as another process would.
  zanth::ScopedLock held("example", zanth::kLockHashed, zanth::kLockWait);
  LockHandle* handle = nullptr;
  EXPECT_EQ("lock(example) failed: file is already locked",
            testing_support::thrownWhat<std::runtime_error>(
                [&] { zanth::lock(handle, "example", zanth::kLockHashed, zanth::kLockTry); }));
  lock_file_release(handle);

  auto waiter = std::async(std::launch::async, [] { return lock_file_wait("example", 1); });
  // The kernel lists a blocked flock as a waiter ("->") of this process.
  const std::string blocked = "-> FLOCK  ADVISORY  WRITE " + std::to_string(::getpid()) + " ";
  testing_support::waitUntil("the waiter blocks", [&] {
    return testing_support::readFile("/proc/locks").find(blocked) != std::string::npos;
  });
  EXPECT_EQ(std::future_status::timeout, waiter.wait_for(std::chrono::seconds(0)));
  held.release();
  LockHandle* got = waiter.get();
  ASSERT_NE(nullptr, got);
  EXPECT_GT(got->fd, 2);
  lock_file_release(got);
}

TEST(LockFile, UnopenableLockFileIsReportedAndThrown) {
  auto r = testing_support::runInChild([] {
    LockHandle* h = nullptr;
    try {
      zanth::lock(h, "/nonexistent/x.lock", zanth::kLockPath, zanth::kLockWait);
    } catch (const zanth::ExSystemError<ENOENT>& e) {
      std::printf("[%s]", e.what());  // the report's last line: nothing else thrown
    }
    lock_file_release(h);
    return 0;
  });
  EXPECT_EQ(
      "Unable to open file \"/nonexistent/x.lock\": No such file or directory.\n"
      "System error 2: No such file or directory\n"
      "[lock() failed: No such file or directory]",
      r.out);
}

TEST(Semaphores, AByteHeldByAProcessRefusesThatByteOnly) {
  // Semaphore bytes belong to the process, so the contenders are children.
  utilities_sem_init();
  sem_lock(3);
  auto other = [] {
    sem_lock(4);
    return sem_trylock(3) == -1 ? 0 : 1;
  };
  EXPECT_EQ(0, testing_support::runInChild(other).exitCode()) << "byte 4 taken, byte 3 refused";
  sem_unlock(3);
  EXPECT_EQ(0, testing_support::runInChild([] { return sem_trylock(3); }).exitCode());
}

}  // namespace
