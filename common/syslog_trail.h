// The rename's trail in the system log: the mail facility, where an admin
// looks first when mail goes wrong. Nothing is logged until a command opens
// the trail (the rename always, the read-only check only for its own
// failure). Trail lines are a short text and key=value pairs; every
// diagnostic the streams carry is logged once as well, as it was printed.
//
// Logging never changes the outcome or the output: without a log daemon,
// with /dev/log gone or a daemon that stopped reading, the lines are lost
// and the command goes on. A send that does not return within
// kSendLimitMs is cut short, and the trail is closed for the rest of the
// run rather than slowing every later line.
//
//   trail::open("mxkeep_domain_rename");
//   trail::line(LOG_INFO, "rename started" + trail::field("old", name));
#ifndef MXKEEP_COMMON_SYSLOG_TRAIL_H
#define MXKEEP_COMMON_SYSLOG_TRAIL_H

#include <syslog.h>  // the priorities: LOG_INFO, LOG_ERR, LOG_CRIT, ...

#include <string>

namespace zanth {
namespace trail {

constexpr long kSendLimitMs = 200;

// open - from now on lines go to the system log under ident (kept for the
// whole process), facility mail, with the process id; nothing once the
// trail has given up on a daemon that does not keep up.
void open(const char* ident);

// isOpen - the trail is open and has not given up.
bool isOpen();

// line - logs text as one line at priority: trailing line ends dropped,
// inner ones folded to blanks; nothing for an empty text.
void line(int priority, const std::string& text);

// diagnostic - logs a message the streams carry, once, as line() does.
void diagnostic(int priority, const std::string& text);

// field - " key=value"; the value in double quotes (with \" and \\) when
// it is empty or holds a blank, a quote, a backslash or a control byte.
std::string field(const char* key, const std::string& value);

}  // namespace trail
}  // namespace zanth

#endif  // MXKEEP_COMMON_SYSLOG_TRAIL_H
