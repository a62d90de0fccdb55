// Lock files and semaphores between real processes: the test holds a lock
// while a forked contender reports each step as one letter on a pipe, so
// whether the contender waits is observed, not guessed from timing.
#include "process/lock.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

#include "common/errors.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

using testing_support::runInChild;

constexpr int kPatienceMs = 5000;
constexpr int kStillWaitingMs = 300;

// A forked process running body, which reports its steps through say().
class Contender {
 public:
  explicit Contender(const std::function<void(Contender&)>& body) {
    EXPECT_EQ(0, pipe(fds_));
    std::fflush(nullptr);
    if ((pid_ = fork()) == 0) {
      body(*this);
      _exit(0);
    }
  }
  ~Contender() {
    kill(pid_, SIGKILL);  // still blocked only when the test stopped half-way
    waitpid(pid_, nullptr, 0);
    close(fds_[0]);
    close(fds_[1]);
  }
  void say(char c) { EXPECT_EQ(1, write(fds_[1], &c, 1)); }
  // The next letter, or '-' when none comes within ms.
  char next(int ms = kPatienceMs) {
    struct pollfd p = {fds_[0], POLLIN, 0};
    char c = '-';
    if (poll(&p, 1, ms) == 1 && read(fds_[0], &c, 1) != 1) c = '?';
    return c;
  }

 private:
  int fds_[2];
  pid_t pid_;
};

TEST(LockFile, SecondHolderFailsAtOnceOrWaitsForTheFirst) {
  const char* name = "hash:/var/spool/postfix/zanth/virtual";
  LockHandle* held = lock_file_wait(name, 1);
  ASSERT_GT(held->fd, 0);
  Contender waiter([&](Contender& self) {
    close(held->fd);  // the inherited copy would hold the lock for the test
    LockHandle* tried = lock_file_try(name, 1);
    self.say(tried->fd == 0 ? 't' : 'x');
    lock_file_release(tried);
    LockHandle* h = lock_file_wait(name, 1);
    self.say(h->fd > 0 ? 'G' : 'x');
    lock_file_release(h);
  });
  EXPECT_EQ('t', waiter.next());
  EXPECT_EQ('-', waiter.next(kStillWaitingMs));
  lock_file_release(held);
  EXPECT_EQ('G', waiter.next());
}

TEST(LockFile, LockThrowsForHeldAndUnopenableFiles) {
  {
    // Lock files conflict between open files, even within one process.
    zanth::ScopedLock held("example", zanth::kLockHashed, zanth::kLockWait);
    LockHandle* handle = nullptr;
    EXPECT_EQ("lock(example) failed: file is already locked",
              testing_support::thrownWhat<std::runtime_error>([&] {
                zanth::lock(handle, "example", zanth::kLockHashed, zanth::kLockTry);
              }));
    lock_file_release(handle);
  }
  zanth::ScopedLock("example", zanth::kLockHashed, zanth::kLockTry).release();

  auto r = runInChild([] {
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
  utilities_sem_init();
  sem_lock(3);
  Contender other([](Contender& self) {
    sem_lock(4);
    self.say('4');
    self.say(sem_trylock(3) == -1 ? 't' : 'x');
    sem_lock(3);
    self.say('G');
  });
  EXPECT_EQ('4', other.next());
  EXPECT_EQ('t', other.next());
  EXPECT_EQ('-', other.next(kStillWaitingMs));
  sem_unlock(3);
  EXPECT_EQ('G', other.next());
}

}  // namespace
