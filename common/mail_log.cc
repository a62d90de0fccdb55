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

MailLogCapture* g_capture = nullptr;  // the innermost one living

}  // namespace

MailLogCapture::MailLogCapture(Keep keep) : keep_(keep), savedHook_(mail_log), outer_(g_capture) {
  g_capture = this;
  mail_log = receive;
}

MailLogCapture::~MailLogCapture() {
  g_capture = outer_;
  mail_log = savedHook_;
}

void MailLogCapture::receive(int priority, const char* format, ...) {
  zanth::ErrnoSaver keep_errno;
  va_list args;
  va_start(args, format);
  std::string text = zanth::formatted(format, args);
  va_end(args);
  const Keep keep = g_capture->keep_;
  if (keep == Keep::kAll || (keep == Keep::kPrinted && priority <= mail_log_threshold))
    g_capture->messages_.push_back(MailLogMessage{priority, std::move(text)});
}

std::string MailLogCapture::take() {
  std::string joined;
  for (const MailLogMessage& message : messages_) {
    const size_t end = message.text.find_last_not_of('\n');
    if (end == std::string::npos) continue;
    if (!joined.empty()) joined += "; ";
    joined.append(message.text, 0, end + 1);
  }
  messages_.clear();
  return joined;
}
