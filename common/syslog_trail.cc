// The system-log trail. See syslog_trail.h.
#include "common/syslog_trail.h"

#include <signal.h>
#include <sys/time.h>

#include <cerrno>

namespace zanth {
namespace trail {
namespace {

bool g_open = false;
// Set once a send was cut short: the trail stays closed for the run.
bool g_gaveUp = false;
volatile sig_atomic_t g_interrupted = 0;

extern "C" void interruptSend(int) { g_interrupted = 1; }

// Arms a repeating SIGALRM for its lifetime, so that a send to a log
// daemon that stopped reading returns EINTR instead of blocking (the
// handler does not ask for restarted calls). Puts the previous handler
// and timer back.
class SendLimit final {
 public:
  SendLimit() {
    g_interrupted = 0;
    struct sigaction action {};
    action.sa_handler = interruptSend;
    sigemptyset(&action.sa_mask);
    armed_ = ::sigaction(SIGALRM, &action, &previousAction_) == 0;
    const long us = kSendLimitMs * 1000;
    const struct itimerval limit = {{0, us}, {0, us}};
    armed_ = armed_ && ::setitimer(ITIMER_REAL, &limit, &previousTimer_) == 0;
  }
  ~SendLimit() {
    ::setitimer(ITIMER_REAL, &previousTimer_, nullptr);
    ::sigaction(SIGALRM, &previousAction_, nullptr);
  }
  SendLimit(const SendLimit&) = delete;
  SendLimit& operator=(const SendLimit&) = delete;

  // reached - the limit ran out during the send (or could not be set).
  bool reached() const { return !armed_ || g_interrupted != 0; }

 private:
  bool armed_ = false;
  struct sigaction previousAction_ {};
  struct itimerval previousTimer_ {};
};

std::string folded(const std::string& text) {
  std::string out = text;
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  for (char& c : out)
    if (c == '\n' || c == '\r') c = ' ';
  return out;
}

bool needsQuotes(const std::string& value) {
  if (value.empty()) return true;
  for (unsigned char c : value)
    if (c <= ' ' || c == '"' || c == '\\' || c == 0x7f) return true;
  return false;
}

}  // namespace

void open(const char* ident) {
  if (g_open || g_gaveUp) return;
  // No LOG_CONS or LOG_PERROR: a missing daemon must not change the output.
  ::openlog(ident, LOG_PID | LOG_NDELAY, LOG_MAIL);
  g_open = true;
}

bool isOpen() { return g_open; }

void line(int priority, const std::string& text) {
  if (!g_open) return;
  const std::string message = folded(text);
  if (message.empty()) return;
  const int saved = errno;
  {
    const SendLimit limit;
    ::syslog(priority, "%s", message.c_str());
    if (limit.reached()) {
      // The daemon does not keep up: the rest of the run goes unlogged.
      ::closelog();
      g_open = false;
      g_gaveUp = true;
    }
  }
  errno = saved;
}

void diagnostic(int priority, const std::string& text) { line(priority, text); }

std::string field(const char* key, const std::string& value) {
  std::string out = std::string(" ") + key + "=";
  if (!needsQuotes(value)) return out + value;
  out += '"';
  for (char c : value) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + '"';
}

}  // namespace trail
}  // namespace zanth
