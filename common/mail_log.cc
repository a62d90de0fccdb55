// Default logging hook of the procedural mail code. errno is preserved so
// that a caller may log first and report the cause afterwards.
#include "common/mail_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <initializer_list>
#include <string>

#include "common/syscall.h"
#include "common/syslog_trail.h"

mail_log_fn mail_log = mail_log_default;
int mail_log_threshold = LOG_INFO;

void mail_log_default(int priority, const char* format, ...) {
  if (priority > mail_log_threshold) return;
  zanth::ErrnoSaver keep;
  for (FILE* stream : {stderr, stdout}) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stream, format, args);
    va_end(args);
    std::fputc('\n', stream);
    std::fflush(stream);
  }
  if (zanth::trail::isOpen()) {
    va_list args;
    va_start(args, format);
    zanth::trail::diagnostic(priority, zanth::formatted(format, args));
    va_end(args);
  }
}

namespace {

// What mail_log said while a MailLogCapture lives, "; "-joined.
std::string g_captured;

void captureMessage(int, const char* format, ...) {
  char text[4096];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::string message(text);
  while (!message.empty() && message.back() == '\n') message.pop_back();
  if (message.empty()) return;
  if (!g_captured.empty()) g_captured += "; ";
  g_captured += message;
}

}  // namespace

MailLogCapture::MailLogCapture() : saved_(mail_log) {
  g_captured.clear();
  mail_log = captureMessage;
}

MailLogCapture::~MailLogCapture() { mail_log = saved_; }

std::string MailLogCapture::take() {
  std::string text;
  text.swap(g_captured);
  return text;
}
