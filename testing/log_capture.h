// Capture of the procedural code's logging hook for tests: installed as
// mail_log, it records "priority:text" of each message the default hook
// would print (priority at most mail_log_threshold) instead of printing it.
#ifndef MXKEEP_TESTING_LOG_CAPTURE_H
#define MXKEEP_TESTING_LOG_CAPTURE_H

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "common/mail_log.h"

namespace testing_support {

inline std::vector<std::string> captured_log;  // "priority:text", oldest first

// captureMailLog - a mail_log hook appending to captured_log what
// mail_log_default would print.
inline void captureMailLog(int priority, const char* format, ...) {
  if (priority > mail_log_threshold) return;
  char text[8192];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  captured_log.push_back(std::to_string(priority) + ":" + text);
}

}  // namespace testing_support

#endif  // MXKEEP_TESTING_LOG_CAPTURE_H
