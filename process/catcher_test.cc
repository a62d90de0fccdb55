// Child catcher against real children and signals: coalesced SIGCHLDs,
// children nobody registered, and the refusal to uninstall too early.
#include "process/catcher.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "testing/test_support.h"

namespace {

using zanth::process::ProcessSetCatcher;

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

// All exits happen while SIGCHLD is blocked, so one signal stands for all.
TEST(ProcessSetCatcher, NoExitLostWhenManyChildrenEndTogether) {
  constexpr unsigned kChildren = 50;
  ProcessSetCatcher catcher;
  std::vector<pid_t> pids;
  installAndFork(catcher, [&] {
    for (unsigned i = 1; i <= kChildren; ++i) {
      std::fflush(nullptr);
      const pid_t pid = fork();
      if (pid == 0) _exit(static_cast<int>(i));
      pids.push_back(pid);
      catcher.registerChild(pid);
    }
  });

  EXPECT_EQ(kChildren, waitFor(catcher, [&] { return catcher.finishedCount() == kChildren; }));
  for (unsigned i = 1; i <= kChildren; ++i) {
    const auto& record = catcher.children().at(pids[i - 1]);
    EXPECT_TRUE(record.exited && WEXITSTATUS(record.status) == static_cast<int>(i)) << i;
  }
  catcher.uninstall(false);
}

TEST(ProcessSetCatcher, ForeignChildrenAreReapedAndForgottenAndOursKeepItInstalled) {
  ProcessSetCatcher catcher;
  pid_t foreign = -1, ours = -1;
  installAndFork(catcher, [&] {
    std::fflush(nullptr);
    if ((foreign = fork()) == 0) _exit(3);
    if ((ours = fork()) == 0) {
      for (;;) pause();  // until killed
    }
    catcher.registerChild(ours);
    siginfo_t info{};
    ASSERT_EQ(0, waitid(P_PID, foreign, &info, WEXITED | WNOWAIT));  // a zombie now
  });

  EXPECT_EQ(-1, waitpid(foreign, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno) << "the handler should have reaped it";
  EXPECT_EQ(0u, catcher.eventCount());
  EXPECT_EQ(1u, catcher.children().size());
  // Refused while ours runs: the handler stays in force (the self-pipe is
  // closed by then, so the end of ours shows in the counts alone).
  EXPECT_EQ("there're some child processes still running",
            testing_support::thrownWhat<std::logic_error>([&] { catcher.uninstall(false); }));
  EXPECT_EQ(&catcher, ProcessSetCatcher::installed());

  ASSERT_EQ(0, kill(ours, SIGKILL));
  waitFor(catcher, [&] { return catcher.finishedCount() == 1; });
  catcher.uninstall(false);
  EXPECT_EQ(nullptr, ProcessSetCatcher::installed());
}

}  // namespace
