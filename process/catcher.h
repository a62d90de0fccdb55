// Child process catcher: a SIGCHLD handler that reaps the children of one
// pipeline run with non-blocking waitpid, records each status against its
// pid and wakes the run loop through a non-blocking self-pipe. Only one
// catcher can be installed per process. Failed system calls throw
// SystemError, misuse throws std::logic_error.
#ifndef MXKEEP_PROCESS_CATCHER_H
#define MXKEEP_PROCESS_CATCHER_H

#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <map>

namespace zanth {
namespace process {

// What the catcher knows about one registered child. `exited` is set as soon
// as any status was collected, a stop included: test `status` with the wait
// macros to tell a stop from a termination.
struct ChildRecord {
  bool exited = false;
  int status = 0;
};

// Reaps children without blocking and without losing an exit.
//
//   SignalMaskGuard mask;
//   mask.block(SIGCHLD);          // no exit can slip past before register
//   ProcessSetCatcher catcher;
//   catcher.install();
//   pid_t pid = fork(); ...
//   catcher.registerChild(pid);
//   mask.restore();               // SIGCHLD now wakes select() on readFd()
//
// The handler reaps every child of the process, including ones it was never
// told about: those are dropped without trace. Call registerChild() with
// SIGCHLD blocked, or an early exit may be reaped before it is known.
class ProcessSetCatcher final {
 public:
  using ChildMap = std::map<pid_t, ChildRecord>;

  ProcessSetCatcher() = default;
  // Forces the uninstall if this catcher is still in force; never throws.
  ~ProcessSetCatcher();
  ProcessSetCatcher(const ProcessSetCatcher&) = delete;
  ProcessSetCatcher& operator=(const ProcessSetCatcher&) = delete;

  // Takes over SIGCHLD and opens the self-pipe; throws std::logic_error when
  // any catcher is installed already.
  void install();
  // Starts tracking a freshly forked child.
  void registerChild(pid_t pid);
  // Empties the self-pipe (one byte per terminated child); returns the byte
  // count. errno is left as it was when the pipe simply ran dry.
  size_t drain();
  // Gives SIGCHLD back. Without force, refuses (std::logic_error, catcher
  // stays installed) while a registered child has not terminated.
  void uninstall(bool force);

  // Read end of the self-pipe, -1 when not installed.
  int readFd() const { return readFd_; }
  const ChildMap& children() const { return children_; }
  unsigned registeredCount() const { return static_cast<unsigned>(children_.size()); }
  // Registered children that exited or were killed.
  unsigned finishedCount() const { return finished_.load(); }
  // Statuses collected for registered children, stops included.
  unsigned eventCount() const { return events_.load(); }

  // The catcher in force, or null.
  static ProcessSetCatcher* installed();

 private:
  static void onChildSignal(int signal, siginfo_t* info, void* context);
  void collect();
  void closeSelfPipe();

  ChildMap children_;
  std::atomic<unsigned> finished_{0};
  std::atomic<unsigned> events_{0};
  struct sigaction saved_ {};
  int readFd_ = -1;
  int writeFd_ = -1;
};

// Blocks signals for a scope and puts the earlier mask back. A second
// block() adds to the mask but keeps the mask saved by the first.
class SignalMaskGuard final {
 public:
  SignalMaskGuard() = default;
  // Restores a saved mask, ignoring failure; never throws.
  ~SignalMaskGuard();
  SignalMaskGuard(const SignalMaskGuard&) = delete;
  SignalMaskGuard& operator=(const SignalMaskGuard&) = delete;

  void block(int signal);
  // Sets the saved mask back; a no-op when nothing is saved.
  void restore();

  bool saved() const { return saved_; }
  // The mask in force before the first block(); valid while saved().
  const sigset_t& savedMask() const { return mask_; }

 private:
  void restoreQuietly() noexcept;

  sigset_t mask_{};
  bool saved_ = false;
};

}  // namespace process
}  // namespace zanth

#endif  // MXKEEP_PROCESS_CATCHER_H
