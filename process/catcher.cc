// Child process catcher and signal-mask guard. The SIGCHLD handler only
// touches the installed catcher's records and counters, waitpid, write and
// errno; the map itself changes only while SIGCHLD is blocked, so the
// handler never walks a tree that is being rebuilt.
#include "process/catcher.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "common/descriptors.h"
#include "common/errors.h"
#include "common/syscall.h"

namespace zanth {
namespace process {

namespace {

// The catcher the handler reports to. Atomic so that the handler sees
// either null or a fully installed catcher.
std::atomic<ProcessSetCatcher*> g_installed{nullptr};

constexpr char kWakeByte = 't';

}  // namespace

ProcessSetCatcher* ProcessSetCatcher::installed() { return g_installed.load(); }

ProcessSetCatcher::~ProcessSetCatcher() {
  if (g_installed.load() == this) {
    // The handler must never reach a destroyed catcher, so the uninstall is
    // forced on every path; on the normal path the owner has usually done
    // it already and this is a no-op.
    try {
      uninstall(true);
    } catch (const std::exception& e) {
      errorStream << "ProcessSetCatcher: " << e.what() << std::endl;
    }
  }
  ErrnoSaver keep;
  // Errors closing here have nobody to go to.
  if (readFd_ >= 0) ::close(readFd_);
  if (writeFd_ >= 0) ::close(writeFd_);
}

void ProcessSetCatcher::install() {
  if (g_installed.load() != nullptr)
    throw std::logic_error("ProcessSetCatcher instance has been installed already");

  struct sigaction action {};
  action.sa_sigaction = &ProcessSetCatcher::onChildSignal;
  action.sa_flags = SA_NOCLDSTOP | SA_SIGINFO;
  if (retryEintr([&] { return ::sigprocmask(SIG_BLOCK, nullptr, &action.sa_mask); }) == -1)
    throw SystemError("sigprocmask");
  if (retryEintr([&] { return ::sigaction(SIGCHLD, &action, &saved_); }) == -1)
    throw SystemError("sigaction");

  try {
    closeSelfPipe();
    int fds[2];
    // Close-on-exec keeps the self-pipe out of the programs being run.
    if (retryEintr([&] { return ::pipe2(fds, O_CLOEXEC); }) == -1)
      throw SystemError("process set catcher control pipe");
    readFd_ = fds[0];
    writeFd_ = fds[1];
    if (setNonBlocking(readFd_) != 0 || setNonBlocking(writeFd_) != 0)
      throw SystemError("control pipe fcntl");
  } catch (...) {
    ErrnoSaver keep;
    ::sigaction(SIGCHLD, &saved_, nullptr);
    throw;
  }

  children_.clear();
  finished_ = 0;
  events_ = 0;
  g_installed.store(this);
}

void ProcessSetCatcher::registerChild(pid_t pid) {
  SignalMaskGuard mask;
  mask.block(SIGCHLD);
  children_[pid] = ChildRecord();
}

size_t ProcessSetCatcher::drain() {
  // The pipe is non-blocking: the read that ends the loop fails with
  // EAGAIN, which is no news to the caller.
  ErrnoSaver keep;
  size_t count = 0;
  char byte;
  while (retryEintr([&] { return ::read(readFd_, &byte, 1); }) > 0) ++count;
  return count;
}

void ProcessSetCatcher::uninstall(bool force) {
  if (g_installed.load() != this) return;
  SignalMaskGuard mask;
  mask.block(SIGCHLD);

  closeSelfPipe();
  if (!force && registeredCount() > finishedCount())
    throw std::logic_error("there're some child processes still running");
  children_.clear();
  if (retryEintr([&] { return ::sigaction(SIGCHLD, &saved_, nullptr); }) == -1)
    throw SystemError("restore sigaction");
  g_installed.store(nullptr);
}

void ProcessSetCatcher::closeSelfPipe() {
  // Marked -1 before anything can throw, so the handler never writes to a
  // descriptor number that has since been reused.
  int readFd = readFd_, writeFd = writeFd_;
  readFd_ = writeFd_ = -1;
  closeOrThrow(readFd, "close");
  closeOrThrow(writeFd, "close");
}

void ProcessSetCatcher::onChildSignal(int, siginfo_t*, void*) {
  ProcessSetCatcher* self = g_installed.load();
  if (self == nullptr) return;
  ErrnoSaver keep;
  self->collect();
}

void ProcessSetCatcher::collect() {
  for (;;) {
    int status = 0;
    pid_t pid = retryEintr([&] { return ::waitpid(-1, &status, WNOHANG); });
    if (pid <= 0) break;
    ChildMap::iterator child = children_.find(pid);
    if (child == children_.end()) continue;  // not ours: reaped and forgotten
    child->second.exited = true;
    child->second.status = status;
    ++events_;
    if (WIFSTOPPED(status)) continue;
    ++finished_;
    if (writeFd_ >= 0) {
      // A full or closed self-pipe loses nothing: the counts are exact.
      retryEintr([&] { return ::write(writeFd_, &kWakeByte, 1); });
    }
  }
}

SignalMaskGuard::~SignalMaskGuard() {
  if (saved_) restoreQuietly();
}

void SignalMaskGuard::block(int signal) {
  sigset_t mask;
  if (retryEintr([&] { return ::sigprocmask(SIG_BLOCK, nullptr, &mask); }) == -1)
    throw SystemError("get sigprocmask");
  if (::sigaddset(&mask, signal) == -1) throw SystemError("sigaddset");
  sigset_t* old = saved_ ? nullptr : &mask_;
  if (retryEintr([&] { return ::sigprocmask(SIG_BLOCK, &mask, old); }) == -1)
    throw SystemError("set sigprocmask");
  saved_ = true;
}

void SignalMaskGuard::restore() {
  if (!saved_) return;
  if (exceptionInFlight()) {
    restoreQuietly();
    return;
  }
  if (retryEintr([&] { return ::sigprocmask(SIG_SETMASK, &mask_, nullptr); }) == -1)
    throw SystemError("restore sigprocmask");
  saved_ = false;
}

void SignalMaskGuard::restoreQuietly() noexcept {
  ErrnoSaver keep;
  retryEintr([&] { return ::sigprocmask(SIG_SETMASK, &mask_, nullptr); });
  saved_ = false;
}

}  // namespace process
}  // namespace zanth
