// Lock files and semaphores: a held lock refuses a try and holds a waiter
// until it is released; a semaphore byte blocks another process on that
// byte only, which reports each step on a pipe, so waits are observed.
#include "process/lock.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
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

constexpr int kStillWaitingMs = 300;

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
  EXPECT_EQ(std::future_status::timeout,
            waiter.wait_for(std::chrono::milliseconds(kStillWaitingMs)));
  held.release();
  LockHandle* got = waiter.get();
  EXPECT_GT(got->fd, 2);
  lock_file_release(got);
}

TEST(LockFile, UnopenableLockFileIsReportedAndThrown) {
  auto r = testing_support::runInChild([] {
    LockHandle* h = nullptr;
    try {
      zanth::lock(h, "/nonexistent/x.lock", zanth::kLockPath, zanth::kLockWait);
    } catch (const zanth::ExSystemError<ENOENT>& e) {
      std::printf("[%s]", e.what());
      lock_file_release(h);
      return 0;
    }
    return 3;
  });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ(
      "Unable to open file \"/nonexistent/x.lock\": No such file or directory.\n"
      "System error 2: No such file or directory\n"
      "[lock() failed: No such file or directory]",
      r.out);
}

TEST(Semaphores, SameByteBlocksOtherBytesDoNot) {
  // Semaphore bytes belong to the process, so the contender is a child.
  utilities_sem_init();
  sem_lock(3);
  int steps[2];
  ASSERT_EQ(0, pipe(steps));
  std::fflush(nullptr);
  const pid_t other = fork();
  if (other == 0) {
    sem_lock(4);
    if (sem_trylock(3) != -1) _exit(1);
    if (write(steps[1], "t", 1) != 1) _exit(2);
    sem_lock(3);
    _exit(0);
  }
  close(steps[1]);
  char step = '-';
  EXPECT_EQ(1, read(steps[0], &step, 1)) << "byte 4 taken, byte 3 refused at once";
  // Still blocked on byte 3: neither a letter nor the end of the pipe.
  struct pollfd p = {steps[0], POLLIN, 0};
  EXPECT_EQ(0, poll(&p, 1, kStillWaitingMs));
  sem_unlock(3);
  int status = -1;
  ASSERT_EQ(other, waitpid(other, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  close(steps[0]);
}

}  // namespace
