// Held termination signals: the handler only records, the rename decides
// at its step boundaries. See termination.h.
#include "process/termination.h"

#include <signal.h>

#include <string>

#include "common/errors.h"
#include "common/syscall.h"

namespace zanth {
namespace process {
namespace {

volatile sig_atomic_t g_first = 0;
volatile sig_atomic_t g_arrivals = 0;
bool g_thrown = false;
long g_waitLimitMs = 0;

extern "C" void recordSignal(int signal) {
  if (g_first == 0) g_first = signal;
  g_arrivals = g_arrivals + 1;
}

extern "C" void dropSignal(int) {}

const char* signalName(int signal) {
  switch (signal) {
    case SIGTERM:
      return "SIGTERM";
    case SIGINT:
      return "SIGINT";
    case SIGHUP:
      return "SIGHUP";
    default:
      return "an unexpected signal";
  }
}

void install(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: lock waits must see EINTR
  if (::sigaction(signal, &action, nullptr) != 0) throw SystemError("sigaction");
}

}  // namespace

TerminationSignal::TerminationSignal(int signal)
    : std::runtime_error(std::string("terminated by ") + signalName(signal)), signal_(signal) {}

void holdTerminationSignals() {
  for (int signal : kTerminationSignals) install(signal, recordSignal);
  install(SIGPIPE, dropSignal);
  sigset_t unblock;
  sigemptyset(&unblock);
  for (int signal : kTerminationSignals) sigaddset(&unblock, signal);
  sigaddset(&unblock, SIGPIPE);
  if (::sigprocmask(SIG_UNBLOCK, &unblock, nullptr) != 0) throw SystemError("sigprocmask");
}

void defaultTerminationSignals() noexcept {
  sigset_t unblock;
  sigemptyset(&unblock);
  for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) {
    ::signal(signal, SIG_DFL);
    sigaddset(&unblock, signal);
  }
  ::sigprocmask(SIG_UNBLOCK, &unblock, nullptr);
}

int heldTerminationSignal() noexcept { return g_first; }

unsigned terminationArrivals() noexcept { return static_cast<unsigned>(g_arrivals); }

void checkTermination() {
  if (g_first == 0 || g_thrown || exceptionInFlight()) return;
  g_thrown = true;
  throw TerminationSignal(g_first);
}

void setWaitLimit(long ms) noexcept { g_waitLimitMs = ms; }

BoundedWait::BoundedWait() noexcept { ::clock_gettime(CLOCK_MONOTONIC, &start_); }

bool BoundedWait::over() const noexcept {
  if (g_first != 0) return true;
  if (g_waitLimitMs <= 0) return false;
  struct timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const long elapsedMs =
      (now.tv_sec - start_.tv_sec) * 1000L + (now.tv_nsec - start_.tv_nsec) / 1000000L;
  return elapsedMs >= g_waitLimitMs;
}

}  // namespace process
}  // namespace zanth
