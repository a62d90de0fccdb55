// The logging hook of the procedural mail code (authentication database,
// handler store, configuration): one process-wide function pointer taking a
// syslog priority and a printf format. The default prints messages whose
// priority is at most mail_log_threshold to standard error, then standard
// output.
#ifndef MXKEEP_COMMON_MAIL_LOG_H
#define MXKEEP_COMMON_MAIL_LOG_H

#include <syslog.h>  // the priorities callers pass: LOG_ERR, LOG_INFO, ...

#include <string>

using mail_log_fn = void (*)(int priority, const char* format, ...);

// The hook in force; never null. Starts as mail_log_default.
extern mail_log_fn mail_log;

// Highest priority number the default hook prints; LOG_INFO unless changed.
extern int mail_log_threshold;

// mail_log_default - print "message\n" to stderr and stdout, flushing each.
void mail_log_default(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Routes mail_log into a buffer for its scope, whatever the priority, and
// puts the hook in force before back afterwards: for callers that attach
// the procedural code's messages to their own report instead of printing
// them. Not nestable.
//
//   MailLogCapture log;
//   if (mail_auth_domain_users(name, &users) < 0) report(log.take());
class MailLogCapture final {
 public:
  MailLogCapture();
  ~MailLogCapture();
  MailLogCapture(const MailLogCapture&) = delete;
  MailLogCapture& operator=(const MailLogCapture&) = delete;

  // take - the messages since construction or the last take(), without
  // their line ends, joined by "; ".
  std::string take();

 private:
  const mail_log_fn saved_;
};

#endif  // MXKEEP_COMMON_MAIL_LOG_H
