// Lock files and semaphores between real processes: forked peers report
// each step as one letter on a shared pipe, so the order in which they get
// a lock is observed, not guessed from timing.
#include "process/lock.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

#include "common/errors.h"
#include "common/orb_conf.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

using testing_support::pathExists;
using testing_support::runInChild;
using testing_support::TempDir;
using testing_support::writeFile;

constexpr int kPatienceMs = 5000;
constexpr int kStillWaitingMs = 300;

// One letter per step from any peer; the test reads them in order.
class Steps {
 public:
  Steps() { EXPECT_EQ(0, pipe(fds_)); }
  ~Steps() {
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
};

// A forked process running body; it may block in awaitGo() until the test
// calls go(). finish() gives its exit status.
class Peer {
 public:
  explicit Peer(const std::function<void(Peer&)>& body) {
    EXPECT_EQ(0, pipe(go_));
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      body(*this);
      _exit(0);
    }
  }
  ~Peer() {
    // Only a test that stopped half-way leaves a peer running, maybe
    // blocked behind another one: end it rather than hang.
    if (pid_ > 0) kill(pid_, SIGKILL);
    finish();
    close(go_[0]);
    close(go_[1]);
  }
  void awaitGo() {
    char c;
    if (read(go_[0], &c, 1) != 1) _exit(9);
  }
  void go() { EXPECT_EQ(1, write(go_[1], "g", 1)); }
  int finish() {
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_) status_ = WEXITSTATUS(status);
    pid_ = -1;
    return status_;
  }

 private:
  int go_[2];
  pid_t pid_;
  int status_ = -1;
};

TEST(LockFile, SecondHolderWaitsForFirst) {
  const char* name = "hash:/var/spool/postfix/zanth/virtual";
  Steps steps;
  Peer holder([&](Peer& self) {
    LockHandle* h = lock_file_wait(name, 1);
    steps.say(h->fd > 0 ? 'L' : 'x');
    self.awaitGo();
    steps.say('R');
    lock_file_release(h);
  });
  ASSERT_EQ('L', steps.next());
  Peer waiter([&](Peer&) {
    steps.say('T');
    LockHandle* h = lock_file_wait(name, 1);
    steps.say(h->fd > 0 ? 'G' : 'x');
    lock_file_release(h);
  });
  ASSERT_EQ('T', steps.next());
  EXPECT_EQ('-', steps.next(kStillWaitingMs));

  LockHandle* tried = lock_file_try(name, 1);
  ASSERT_NE(nullptr, tried);
  EXPECT_EQ(0, tried->fd);
  EXPECT_STREQ("/var/lock/files/2de00ac671c7eaff66a8ce9f9faa19cf", tried->path);
  lock_file_release(tried);

  holder.go();
  EXPECT_EQ('R', steps.next());
  EXPECT_EQ('G', steps.next());
  EXPECT_EQ(0, holder.finish());
  EXPECT_EQ(0, waiter.finish());
}

TEST(LockFile, LockThrowsForHeldAndUnopenableFiles) {
  mode_t saved_umask = umask(022);
  Steps steps;
  Peer holder([&](Peer& self) {
    zanth::ScopedLock held("example", zanth::kLockHashed, zanth::kLockWait);
    steps.say('L');
    self.awaitGo();
  });
  ASSERT_EQ('L', steps.next());
  LockHandle* handle = nullptr;
  try {
    zanth::lock(handle, "example", zanth::kLockHashed, zanth::kLockTry);
    ADD_FAILURE() << "a held lock was taken";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("lock(example) failed: file is already locked", e.what());
  }
  ASSERT_NE(nullptr, handle);
  EXPECT_STREQ("/var/lock/files/1a79a4d60de6718e8e5b326e338ae533", handle->path);
  lock_file_release(handle);
  EXPECT_THROW(zanth::ScopedLock("example", 7, zanth::kLockTry), std::runtime_error);
  holder.go();
  EXPECT_EQ(0, holder.finish());
  {
    // Two open lock files conflict even within one process.
    zanth::ScopedLock guard("example", zanth::kLockHashed, zanth::kLockTry);
    EXPECT_THROW(zanth::ScopedLock("example", 0, zanth::kLockTry), std::runtime_error);
  }
  zanth::ScopedLock("example", zanth::kLockHashed, zanth::kLockTry).release();
  struct stat st;
  ASSERT_EQ(0, stat("/var/lock/files/1a79a4d60de6718e8e5b326e338ae533", &st));
  EXPECT_EQ(0644u, st.st_mode & 07777);
  umask(saved_umask);

  TempDir dir;
  zanth::ScopedLock byPath(dir / "map.lock", zanth::kLockPath, zanth::kLockTry);
  LockHandle* again = lock_file_try((dir / "map.lock").c_str(), 0);
  EXPECT_EQ(0, again->fd);
  lock_file_release(again);

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

class Semaphores : public ::testing::Test {
 protected:
  void SetUp() override {
    shutdown_sem();
    unlink(kOrbConfPath);
    orb_conf_unload();
  }
  void TearDown() override { SetUp(); }
};

TEST_F(Semaphores, FileLivesUnderProductRoot) {
  utilities_sem_init();
  struct stat st;
  ASSERT_EQ(0, stat("/opt/orb/var/utilities.sem", &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  shutdown_sem();

  TempDir dir;
  writeFile(kOrbConfPath, "PRODUCT_ROOT_D " + (dir / "root") + "\n");
  orb_conf_unload();
  utilities_sem_init();
  EXPECT_TRUE(pathExists(dir / "root/var/utilities.sem"));

  shutdown_sem();
  writeFile(dir / "file", "");
  writeFile(kOrbConfPath, "PRODUCT_ROOT_D " + (dir / "file") + "\n");
  orb_conf_unload();
  auto r = runInChild([] {
    utilities_sem_init();
    return 0;
  });
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("failed to open semaphore file " + (dir / "file") +
                "/var/utilities.sem: Not a directory\nSystem error 20: Not a directory\n",
            r.err);
}

TEST_F(Semaphores, SameByteBlocksOtherBytesDoNot) {
  utilities_sem_init();
  Steps steps;
  Peer holder([&](Peer& self) {
    sem_lock(3);
    steps.say('L');
    self.awaitGo();
    steps.say('R');
    sem_unlock(3);
  });
  ASSERT_EQ('L', steps.next());
  Peer other([&](Peer&) {
    sem_lock(4);
    steps.say('4');
    steps.say(sem_trylock(3) == -1 ? 't' : 'x');
    sem_lock(3);
    steps.say('G');
    sem_unlock(3);
    sem_unlock(4);
  });
  EXPECT_EQ('4', steps.next());
  EXPECT_EQ('t', steps.next());
  EXPECT_EQ('-', steps.next(kStillWaitingMs));
  holder.go();
  EXPECT_EQ('R', steps.next());
  EXPECT_EQ('G', steps.next());
  EXPECT_EQ(0, holder.finish());
  EXPECT_EQ(0, other.finish());
}

TEST_F(Semaphores, MisuseEndsProcess) {
  struct Case {
    std::function<void()> call;
    std::string message;
  } cases[] = {
      {[] { sem_lock(-1); }, "sem_lock() failed for semnum -1: semnum must not be negative\n"},
      {[] { sem_unlock(-2); }, "sem_unlock() failed for semnum -2: semnum must not be negative\n"},
      {[] { sem_trylock(5); },
       "sem_trylock() failed for semnum 5: Bad file descriptor\nSystem error 9: Bad file "
       "descriptor\n"},
  };
  for (const Case& c : cases) {
    auto r = runInChild([&] {
      c.call();
      return 0;
    });
    EXPECT_EQ(1, r.exitCode()) << c.message;
    EXPECT_EQ(c.message, r.out);
    EXPECT_EQ(c.message, r.err);
  }
}

}  // namespace
