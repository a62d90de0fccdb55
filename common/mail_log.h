// The logging hook of the procedural mail code (authentication database,
// handler store, configuration): one process-wide function pointer taking a
// syslog priority and a printf format. The default prints messages whose
// priority is at most mail_log_threshold to standard error, then standard
// output.
#ifndef MXKEEP_COMMON_MAIL_LOG_H
#define MXKEEP_COMMON_MAIL_LOG_H

#include <syslog.h>  // the priorities callers pass: LOG_ERR, LOG_INFO, ...

using mail_log_fn = void (*)(int priority, const char* format, ...);

// The hook in force; never null. Starts as mail_log_default.
extern mail_log_fn mail_log;

// Highest priority number the default hook prints; LOG_INFO unless changed.
extern int mail_log_threshold;

// mail_log_default - print "message\n" to stderr and stdout, flushing each.
void mail_log_default(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

#endif  // MXKEEP_COMMON_MAIL_LOG_H
