// Child catcher against real children and signals: coalesced SIGCHLDs,
// children nobody registered, and the refusal to uninstall too early.
#include "process/catcher.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "testing/test_support.h"

namespace {

using zanth::process::ProcessSetCatcher;

// Children wait at the gate (a pipe) until open() lets them all go at once.
class Gate {
 public:
  Gate() { EXPECT_EQ(0, pipe(fds_)); }
  ~Gate() { open(); close(fds_[0]); }
  void open() {
    if (fds_[1] >= 0) close(fds_[1]);
    fds_[1] = -1;
  }
  pid_t fork(int code) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    close(fds_[1]);
    char c;
    while (read(fds_[0], &c, 1) < 0 && errno == EINTR) continue;
    _exit(code);
  }

 private:
  int fds_[2] = {-1, -1};
};

// Drains the self-pipe until `done` (ten seconds at most); the bytes drained.
template <class Done>
size_t waitFor(ProcessSetCatcher& catcher, Done done) {
  size_t drained = 0;
  for (int i = 0; i < 100 && !done(); ++i) {
    struct pollfd p = {catcher.readFd(), POLLIN, 0};
    poll(&p, 1, 100);
    drained += catcher.drain();
  }
  return drained + catcher.drain();
}

// Installs `catcher` with SIGCHLD blocked while `fork` runs.
template <class Fork>
void installAndFork(ProcessSetCatcher& catcher, Fork fork) {
  zanth::process::SignalMaskGuard mask;
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
  for (unsigned i = 1; i <= kChildren; ++i) {
    const auto& record = catcher.children().at(pids[i - 1]);
    EXPECT_TRUE(record.exited && WEXITSTATUS(record.status) == static_cast<int>(i)) << i;
  }
  catcher.uninstall(false);
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

  EXPECT_EQ(-1, waitpid(foreign, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno) << "the handler should have reaped it";
  EXPECT_EQ(0u, catcher.eventCount());
  EXPECT_EQ(1u, catcher.children().size());

  gate.open();
  EXPECT_EQ(1u, waitFor(catcher, [&] { return catcher.finishedCount() == 1; }));
  EXPECT_EQ(4, WEXITSTATUS(catcher.children().at(ours).status));
  catcher.uninstall(false);
  EXPECT_EQ(nullptr, ProcessSetCatcher::installed());
}

TEST(ProcessSetCatcher, UninstallRefusesWhileAChildRuns) {
  Gate gate;
  ProcessSetCatcher catcher;
  installAndFork(catcher, [&] { catcher.registerChild(gate.fork(0)); });
  EXPECT_EQ("there're some child processes still running",
            testing_support::thrownWhat<std::logic_error>([&] { catcher.uninstall(false); }));
  EXPECT_EQ(&catcher, ProcessSetCatcher::installed());
}

}  // namespace
