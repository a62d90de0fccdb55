// Mailbox quota: the quota a mailbox's "maildirsize" file states (written
// by maildirsize_file), set for one mailbox or from the product database,
// and the quota operations of the domain manager. Two layers: the
// procedural one returns 1 / 0 with errno and reports through report_error
// (status 0, never fatal); the domain manager's throws
// boost::filesystem::filesystem_error with a fixed text. Kept for the
// control panel: neither command reaches it.
#ifndef MXKEEP_MAIL_POSTFIX_MAILDIRSIZE_H
#define MXKEEP_MAIL_POSTFIX_MAILDIRSIZE_H

#include <string>

#include "mail/postfix/mail_dirs.h"

// mailbox_set_quota - writes the maildirsize of domain's mailbox (domain
// converted to ASCII) with quota less the size of its "@attachments".
// The working directory is the caller's again afterwards. 1 or 0.
int mailbox_set_quota(const char* domain, const char* mailbox, long long quota);

// mailbox_reset_quota - mailbox_set_quota with the domain's "mbox_quota"
// limit read from the product database (none when it is not a number).
// 1 or 0.
int mailbox_reset_quota(const char* domain, const char* mailbox);

// domain_set_default_quota - mailbox_set_quota for every mailbox of the
// domain in the product database that has no quota of its own (-1); stops
// at the first failure. 1 or 0.
int domain_set_default_quota(const char* domain, long long quota);

// The domain quota and the default mailbox quota are one and the same
// operation: these set it, or remove it (quota -1), on every such mailbox.
int domain_remove_default_quota(const char* domain);
int domain_remove_quota(const char* domain);
int domain_set_quota(const char* domain, long long quota);

namespace zanth {
namespace mail {
namespace postfix {

// createMaildirsize - the maildirsize of a new or changed mailbox, with
// quota (negative: none) less the size of its "@attachments" directory.
// Throws "getcwd", "chdir" or "create maildirsize" filesystem errors with
// errno; the working directory is restored on every path. Unlike
// mailbox_set_quota, and on purpose: the domain is taken as ASCII,
// "@attachments" counts only when it is a directory (links followed), its
// size is not checked, and the warning goes to standard error alone.
void createMaildirsize(const PopUser& popUser, const std::string& domain,
                       const std::string& mailbox, long long quota);

// The quota operations of the domain manager over the product database.
// Each throws a filesystem error with error code 0, its fixed text and the
// mailbox or domain directory, after the procedural layer has reported why.
void resetMailboxQuota(const PopUser& popUser, const std::string& domain,
                       const std::string& mailbox);
void storeDefaultMailboxQuota(const PopUser& popUser, const std::string& domain, long long quota);
void removeDefaultMailboxQuota(const PopUser& popUser, const std::string& domain);
void storeDomainQuota(const PopUser& popUser, const std::string& domain, long long quota);
void removeDomainQuota(const PopUser& popUser, const std::string& domain);

}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_MAILDIRSIZE_H
