// Quota file format: the Maildir++ "maildirsize" file of a Maildir, the
// byte quota and the usage counted when it is written, owned by the mail
// user. Procedural: 1 / 0 (or a descriptor / -1) with errno; reported
// through report_error with status 0, never fatal. Kept for the control
// panel: neither command reaches it.
#ifndef MXKEEP_MAIL_POSTFIX_MAILDIRSIZE_FILE_H
#define MXKEEP_MAIL_POSTFIX_MAILDIRSIZE_FILE_H

#include <sys/types.h>

#include <cstddef>

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

#endif  // MXKEEP_MAIL_POSTFIX_MAILDIRSIZE_FILE_H
