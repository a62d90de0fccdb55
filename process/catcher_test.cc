// Child catcher and signal-mask guard against real children and signals:
// coalesced SIGCHLDs, children nobody registered, stops, and the refusals
// that keep a catcher from being left half in force.
#include "process/catcher.h"

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "common/errors.h"
#include "testing/test_support.h"

namespace {

using zanth::process::ProcessSetCatcher;
using zanth::process::SignalMaskGuard;

// Children wait at the gate (a read from a pipe) until open() lets them
// all go at the same instant; each then exits with its own code.
class Gate {
 public:
  Gate() { EXPECT_EQ(0, pipe(fds_)); }
  ~Gate() { open(); close(fds_[0]); }
  void open() {
    if (fds_[1] >= 0) close(fds_[1]);
    fds_[1] = -1;
  }
  pid_t fork(int code, bool traced = false) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    close(fds_[1]);
    if (traced) {  // a traced child's stop is seen by waitpid without WUNTRACED
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      raise(SIGSTOP);
    }
    char c;
    while (read(fds_[0], &c, 1) < 0 && errno == EINTR) continue;
    _exit(code);
  }

 private:
  int fds_[2] = {-1, -1};
};

// Waits on the self-pipe until `done` holds (ten seconds at most); returns
// the number of bytes drained meanwhile.
template <class Done>
size_t waitFor(ProcessSetCatcher& catcher, Done done) {
  size_t drained = 0;
  for (int i = 0; i < 100 && !done(); ++i) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(catcher.readFd(), &set);
    timeval tv{0, 100000};
    select(catcher.readFd() + 1, &set, nullptr, nullptr, &tv);
    drained += catcher.drain();
  }
  return drained + catcher.drain();
}

sighandler_t childHandler() {
  struct sigaction action {};
  sigaction(SIGCHLD, nullptr, &action);
  return action.sa_handler;
}

// Installs `catcher` with SIGCHLD blocked while `fork` runs.
template <class Fork>
void installAndFork(ProcessSetCatcher& catcher, Fork fork) {
  SignalMaskGuard mask;
  mask.block(SIGCHLD);
  catcher.install();
  fork();
}

TEST(ProcessSetCatcher, NoExitLostWhenManyChildrenEndTogether) {
  constexpr unsigned kChildren = 50;
  Gate gate;
  ProcessSetCatcher catcher;
  std::vector<pid_t> pids;
  installAndFork(catcher, [&] {
    for (unsigned i = 1; i <= kChildren; ++i) {
      pids.push_back(gate.fork(static_cast<int>(i)));
      catcher.registerChild(pids.back());
    }
  });
  gate.open();

  EXPECT_EQ(kChildren, waitFor(catcher, [&] { return catcher.finishedCount() == kChildren; }));
  EXPECT_EQ(kChildren, catcher.eventCount());
  for (unsigned i = 1; i <= kChildren; ++i) {
    const auto& record = catcher.children().at(pids[i - 1]);
    EXPECT_TRUE(record.exited && WEXITSTATUS(record.status) == static_cast<int>(i)) << i;
  }
  catcher.uninstall(false);
  EXPECT_EQ(nullptr, ProcessSetCatcher::installed());
  EXPECT_TRUE(catcher.children().empty());
}

TEST(ProcessSetCatcher, ForeignChildrenAreReapedAndForgotten) {
  Gate gate;
  ProcessSetCatcher catcher;
  pid_t foreign = -1, ours = -1;
  installAndFork(catcher, [&] {
    if ((foreign = fork()) == 0) _exit(3);
    catcher.registerChild(ours = gate.fork(4));
    siginfo_t info{};
    ASSERT_EQ(0, waitid(P_PID, foreign, &info, WEXITED | WNOWAIT));  // a zombie now
  });

  errno = 0;
  EXPECT_EQ(-1, waitpid(foreign, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno) << "the handler should have reaped it";
  EXPECT_EQ(0u, catcher.eventCount());
  EXPECT_EQ(1u, catcher.children().size());
  errno = ERANGE;
  EXPECT_EQ(0u, catcher.drain()) << "nothing to wake anyone for";
  EXPECT_EQ(ERANGE, errno) << "an empty self-pipe leaves errno alone";

  gate.open();
  EXPECT_EQ(1u, waitFor(catcher, [&] { return catcher.finishedCount() == 1; }));
  EXPECT_EQ(4, WEXITSTATUS(catcher.children().at(ours).status));
  catcher.uninstall(false);
}

TEST(ProcessSetCatcher, UninstallRefusesWhileAChildRunsUnlessForced) {
  Gate gate;
  ProcessSetCatcher catcher;
  pid_t child = -1;
  installAndFork(catcher, [&] { catcher.registerChild(child = gate.fork(0)); });

  EXPECT_EQ("there're some child processes still running",
            testing_support::thrownWhat<std::logic_error>([&] { catcher.uninstall(false); }));
  EXPECT_EQ(&catcher, ProcessSetCatcher::installed());
  catcher.uninstall(true);
  EXPECT_EQ(nullptr, ProcessSetCatcher::installed());
  EXPECT_EQ(SIG_DFL, childHandler());

  gate.open();
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0)) << "the child is the caller's again";
}

TEST(ProcessSetCatcher, OneAtATimeAndThePreviousHandlerComesBack) {
  struct sigaction custom {};
  custom.sa_handler = [](int) {};
  ASSERT_EQ(0, sigaction(SIGCHLD, &custom, nullptr));

  ProcessSetCatcher first, second;
  first.install();
  EXPECT_EQ("ProcessSetCatcher instance has been installed already",
            testing_support::thrownWhat<std::logic_error>([&] { second.install(); }));
  second.uninstall(false);  // not the one in force: leaves it alone
  EXPECT_EQ(&first, ProcessSetCatcher::installed());
  first.uninstall(false);
  EXPECT_EQ(custom.sa_handler, childHandler());
  signal(SIGCHLD, SIG_DFL);

  // Destroyed while installed, normally or by unwinding: never left behind.
  EXPECT_THROW(
      {
        ProcessSetCatcher unwound;
        unwound.install();
        unwound.registerChild(getpid());  // never finishes
        throw std::runtime_error("unwinding");
      },
      std::runtime_error);
  EXPECT_EQ(nullptr, ProcessSetCatcher::installed());
  { ProcessSetCatcher().install(); }
  EXPECT_EQ(nullptr, ProcessSetCatcher::installed());
  EXPECT_EQ(SIG_DFL, childHandler());
}

TEST(ProcessSetCatcher, StopsAreRecordedButAreNotTerminations) {
  Gate gate;
  ProcessSetCatcher catcher;
  pid_t child = -1;
  siginfo_t info{};
  installAndFork(catcher, [&] {
    catcher.registerChild(child = gate.fork(7, true));
    ASSERT_EQ(0, waitid(P_PID, child, &info, WSTOPPED | WNOWAIT));
  });
  kill(getpid(), SIGCHLD);  // stops raise no SIGCHLD of their own here

  const auto& record = catcher.children().at(child);
  EXPECT_TRUE(record.exited && WIFSTOPPED(record.status) && WSTOPSIG(record.status) == SIGSTOP);
  EXPECT_EQ(1u, catcher.eventCount());
  EXPECT_EQ(0u, catcher.finishedCount());
  EXPECT_EQ(0u, catcher.drain());

  ASSERT_EQ(0, ptrace(PTRACE_DETACH, child, nullptr, nullptr));
  kill(child, SIGSTOP);
  ASSERT_EQ(0, waitid(P_PID, child, &info, WSTOPPED | WNOWAIT));
  kill(child, SIGCONT);
  kill(getpid(), SIGCHLD);
  EXPECT_EQ(0u, catcher.finishedCount());

  gate.open();
  EXPECT_EQ(1u, waitFor(catcher, [&] { return catcher.finishedCount() == 1; }));
  EXPECT_TRUE(WIFEXITED(record.status) && WEXITSTATUS(record.status) == 7);
  catcher.uninstall(false);
}

TEST(SignalMaskGuard, SecondBlockKeepsTheFirstSavedMask) {
  auto blocked = [](int signal) {
    sigset_t now;
    sigprocmask(SIG_BLOCK, nullptr, &now);
    return sigismember(&now, signal) == 1;
  };
  ASSERT_FALSE(blocked(SIGUSR1) || blocked(SIGUSR2));
  {
    SignalMaskGuard guard;
    guard.block(SIGUSR1);
    guard.block(SIGUSR2);
    EXPECT_TRUE(blocked(SIGUSR1) && blocked(SIGUSR2));
    guard.restore();
    EXPECT_FALSE(blocked(SIGUSR1) || blocked(SIGUSR2));
    guard.block(SIGUSR1);
  }
  EXPECT_FALSE(blocked(SIGUSR1)) << "the destructor puts the mask back";
  EXPECT_EQ(std::string("sigaddset: ") + std::strerror(EINVAL),
            testing_support::thrownWhat<zanth::SystemError>([] { SignalMaskGuard().block(0); }));
}

}  // namespace
