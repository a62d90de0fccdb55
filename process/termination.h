// Termination signals during a rename: SIGTERM, SIGINT and SIGHUP are
// caught and held, never acted on in the middle of a step; the rename asks
// at each step boundary and fails there as if that step had failed, so the
// undo runs and no map is left half rewritten. SIGPIPE is caught and
// dropped: a closed output shows up as a failed write, never as death.
// A held signal also ends a wait for a lock file (see lock.h).
#ifndef MXKEEP_PROCESS_TERMINATION_H
#define MXKEEP_PROCESS_TERMINATION_H

#include <signal.h>

#include <ctime>
#include <stdexcept>

namespace zanth {
namespace process {

// The termination signals the rename holds.
constexpr int kTerminationSignals[] = {SIGTERM, SIGINT, SIGHUP};

// The failure a held termination signal turns into at a step boundary.
class TerminationSignal final : public std::runtime_error {
 public:
  explicit TerminationSignal(int signal);
  int signal() const { return signal_; }

 private:
  int signal_;
};

// holdTerminationSignals - catch SIGTERM, SIGINT, SIGHUP (recorded) and
// SIGPIPE (dropped) for the rest of the process. The handlers do not ask
// for restarted system calls, so a blocking call returns EINTR (every
// caller retries) and a lock wait can notice the signal. Programs started
// with exec get the default dispositions back by exec itself; a forked
// child that runs our code calls defaultTerminationSignals(). Throws
// SystemError "sigaction".
void holdTerminationSignals();

// defaultTerminationSignals - the default dispositions of the four
// signals and none of them blocked; for a forked child that does not exec.
// Async-signal-safe; failures are ignored.
void defaultTerminationSignals() noexcept;

// heldTerminationSignal - the first held signal number, 0 for none.
int heldTerminationSignal() noexcept;

// terminationArrivals - how many termination signals arrived so far; a
// caller compares two readings to see whether one came in between.
unsigned terminationArrivals() noexcept;

// checkTermination - throws TerminationSignal for a held signal, once: a
// step boundary reached while the rename is already failing (an exception
// in flight) or after the signal was thrown does nothing, so the undo runs
// to its end.
void checkTermination();

// setWaitLimit - from now on no BoundedWait lasts longer than ms
// milliseconds; 0, the default, sets no limit (the rename's waits end by
// a termination signal only). The domain check sets one: it never hangs.
void setWaitLimit(long ms) noexcept;

// A wait that retries something (a busy database) until it is over: a
// termination signal is held, or the wait limit has passed since it began.
//
//   const BoundedWait wait;
//   while (busy() && !wait.over()) pause();
class BoundedWait final {
 public:
  BoundedWait() noexcept;
  bool over() const noexcept;

 private:
  struct timespec start_;
};

}  // namespace process
}  // namespace zanth

#endif  // MXKEEP_PROCESS_TERMINATION_H
