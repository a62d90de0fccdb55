// Account lookup of the procedural mail code: the numeric ids of a system
// account by name. Reports nothing; failure is -1 with errno. Kept for the
// control panel: neither command reaches it.
#ifndef MXKEEP_COMMON_ACCOUNTS_H
#define MXKEEP_COMMON_ACCOUNTS_H

#include <sys/types.h>

// account_ids - uid and primary gid of the account `name`. 0, or -1 with
// errno (ENOENT when no such account exists, the lookup's own error
// otherwise); *uid and *gid are untouched then.
int account_ids(const char* name, uid_t* uid, gid_t* gid);

#endif  // MXKEEP_COMMON_ACCOUNTS_H
