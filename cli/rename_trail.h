// The lines a rename leaves in the system log's mail facility (see
// common/syslog_trail.h), so that an admin finds what happened to which
// names even when the panel kept none of the output: one line when the
// rename starts, one as each step ends, one for the undo (the Postfix
// step's guard logs it) and one at the end, which after a failure tells
// where each place stands and the command that completes the rename. A
// refusal before any change is one line alone.
#ifndef MXKEEP_CLI_RENAME_TRAIL_H
#define MXKEEP_CLI_RENAME_TRAIL_H

#include <string>

#include "mail/postfix/virtual_rename.h"

namespace zanth {
namespace cli {
namespace rename_trail {

// The rename's name in the system log.
constexpr char kIdent[] = "mxkeep_domain_rename";

// refused - the one line of a rename refused before any change: error is
// the message the streams carried; the names as given, when known.
void refused(const std::string& error, const std::string& givenOld = "",
             const std::string& givenNew = "");

// started - both names as given and as the rename writes them.
void started(const std::string& givenOld, const std::string& givenNew, const std::string& oldName,
             const std::string& newName);

// postfixDetails - the Postfix step's fields: records renamed per map and
// the mail directory "moved" or "already_moved".
std::string postfixDetails(const mail::postfix::PostfixRenameResult& result);

// stepEnded / stepFailed - a step's end: details are further fields
// (" key=value ..."), error the failure's message.
void stepEnded(const char* step, const std::string& details = "");
void stepFailed(const char* step, const std::string& error);

// isStarted - started() was called: the rename may have changed places.
bool isStarted();

// ended - the last line, with the exit status; nothing before started()
// (a rename to the same domain, which changes nothing).
void ended(int status);

}  // namespace rename_trail
}  // namespace cli
}  // namespace zanth

#endif  // MXKEEP_CLI_RENAME_TRAIL_H
