// Mailbox quota: the Maildir++ "maildirsize" file of a mailbox (byte quota
// and the usage counted when it is written) and the quota operations of the
// domain manager. Two layers: the procedural one returns 1 / 0 with errno
// and reports through report_error (status 0, never fatal); the domain
// manager's throws boost::filesystem::filesystem_error with a fixed text.
#ifndef MXKEEP_MAIL_POSTFIX_MAILDIRSIZE_H
#define MXKEEP_MAIL_POSTFIX_MAILDIRSIZE_H

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "mail/postfix/mail_dirs.h"

// maildirsize_quota_to_write - the byte quota as the file states it: no
// quota (negative) is 0, which the file format reads as unlimited; an
// exhausted quota (0) is 1, so that it is not read as unlimited.
long long maildirsize_quota_to_write(long long quota);

// maildirsize_create - writes maildir/maildirsize: "%lldS,%lluC" with the
// quota, then the usage counted now, owned by uid:gid, mode 0644 less the
// umask. The file is written under a temporary name in tmp/, synced and
// renamed into place; when mail arrived while it was counted it is dated
// 960 s before the newest folder time seen, so readers recount. 1 or 0
// (errno set, no temporary file left). On success the working directory is
// left at maildir; callers restore their own (on failure it is restored).
int maildirsize_create(const char* maildir, uid_t uid, gid_t gid, long long quota_bytes,
                       unsigned long long quota_count);

// maildirsize_create_popuser - maildirsize_create with the quota normalised,
// popuser's ids and no message-count limit. 1 or 0.
int maildirsize_create_popuser(const char* maildir, long long quota);

// maildirsize_open_tmp - creates "tmp/<time>.<pid>.<host>-maildirsize"
// relative to the working directory, formatted into buffer (size bytes),
// refusing any name that is taken or not the file opened (a planted link).
// Five attempts 2 s apart, then EAGAIN. The descriptor, or -1 (reported).
int maildirsize_open_tmp(char* buffer, size_t size);

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
// errno; the working directory is restored on every path.
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
