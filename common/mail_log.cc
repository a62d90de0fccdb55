// Default logging hook of the procedural mail code. errno is preserved so
// that a caller may log first and report the cause afterwards.
#include "common/mail_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <initializer_list>

#include "common/syscall.h"

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
}
