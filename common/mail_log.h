// The logging hook of the procedural mail code (authentication database,
// handler store, configuration): one process-wide function pointer taking a
// syslog priority and a printf format. The default prints messages whose
// priority is at most mail_log_threshold to standard error, then standard
// output.
#ifndef MXKEEP_COMMON_MAIL_LOG_H
#define MXKEEP_COMMON_MAIL_LOG_H

#include <syslog.h>  // the priorities callers pass: LOG_ERR, LOG_INFO, ...

#include <string>
#include <vector>

using mail_log_fn = void (*)(int priority, const char* format, ...);

// The hook in force; never null. Starts as mail_log_default.
extern mail_log_fn mail_log;

// Highest priority number the default hook prints; LOG_INFO unless changed.
extern int mail_log_threshold;

// mail_log_default - print "message\n" to stderr and stdout, flushing each.
void mail_log_default(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// One message a capture kept: its syslog priority and its text as formatted.
struct MailLogMessage {
  int priority;
  std::string text;
};

// Routes mail_log into a buffer for its scope and puts the hook in force
// before back afterwards: the one place the procedural code's messages are
// caught instead of printed. The command's check attaches them to its own
// report, the tests compare them, the fuzz targets drop them (formatted
// all the same, so that a wrong argument is still read). Captures nest; the
// innermost one receives.
//
//   MailLogCapture log;
//   if (mail_auth_domain_users(name, &users) < 0) report(log.take());
class MailLogCapture final {
 public:
  enum class Keep {
    kAll,      // every message, whatever its priority
    kPrinted,  // those mail_log_default would print (mail_log_threshold)
    kNothing,  // none: format and drop
  };

  explicit MailLogCapture(Keep keep = Keep::kAll);
  ~MailLogCapture();
  MailLogCapture(const MailLogCapture&) = delete;
  MailLogCapture& operator=(const MailLogCapture&) = delete;

  // take - the texts since construction or the last take() or clear(),
  // without their line ends and skipping empty ones, joined by "; ".
  std::string take();

  const std::vector<MailLogMessage>& messages() const { return messages_; }
  void clear() { messages_.clear(); }

 private:
  static void receive(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

  const Keep keep_;
  const mail_log_fn savedHook_;
  MailLogCapture* const outer_;
  std::vector<MailLogMessage> messages_;
};

#endif  // MXKEEP_COMMON_MAIL_LOG_H
