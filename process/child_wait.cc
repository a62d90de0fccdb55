// A child wait that a termination signal ends. See child_wait.h.
#include "process/child_wait.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "common/syscall.h"
#include "process/termination.h"

namespace zanth {
namespace process {
namespace {

constexpr long kPollStepMs = 10;

// Blocks SIGTERM, SIGINT and SIGHUP for its lifetime; `unblocked` is the
// mask to wait with, so a signal can arrive only inside that wait.
class TerminationBlock final {
 public:
  TerminationBlock() {
    sigset_t block;
    sigemptyset(&block);
    for (int signal : kTerminationSignals) sigaddset(&block, signal);
    ::sigprocmask(SIG_BLOCK, &block, &unblocked_);
  }
  ~TerminationBlock() { ::sigprocmask(SIG_SETMASK, &unblocked_, nullptr); }
  TerminationBlock(const TerminationBlock&) = delete;
  TerminationBlock& operator=(const TerminationBlock&) = delete;
  const sigset_t* unblocked() const { return &unblocked_; }

 private:
  sigset_t unblocked_;
};

void pause(long ms) {
  const struct timespec step = {0, ms * 1000000L};
  ::nanosleep(&step, nullptr);
}

// endChild - SIGTERM, a grace, SIGKILL; then the child is reaped.
pid_t endChild(pid_t pid, int* status) {
  ::kill(pid, SIGTERM);
  for (long waited = 0; waited < kChildGraceMs; waited += kPollStepMs) {
    const pid_t gone = retryEintr([&] { return ::waitpid(pid, status, WNOHANG); });
    if (gone != 0) return gone;
    pause(kPollStepMs);
  }
  ::kill(pid, SIGKILL);
  return retryEintr([&] { return ::waitpid(pid, status, 0); });
}

}  // namespace

pid_t waitChildOrEnd(pid_t pid, int* status) {
  const TerminationBlock block;
  // Readable once the child has ended. Without one (an old kernel) the
  // wait wakes every step to look.
  const UniqueFd ended(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  const struct timespec step = {0, kPollStepMs * 1000000L};
  while (heldTerminationSignal() == 0) {
    const pid_t gone = ::waitpid(pid, status, WNOHANG);
    if (gone != 0) return gone;
    struct pollfd fd = {ended.get(), POLLIN, 0};
    // The signals are let through only while ppoll waits: one arriving
    // after the test above interrupts it rather than being missed.
    ::ppoll(&fd, ended.get() >= 0 ? 1 : 0, ended.get() >= 0 ? nullptr : &step, block.unblocked());
  }
  return endChild(pid, status);
}

}  // namespace process
}  // namespace zanth
