// Mail domains in the authentication database: rename, removal (with the
// domain's users), status, registration and id lookup. Each operation opens
// mail_auth_db_path, runs one prepared statement and closes it again.
// Results are 0 / -1 unless noted; failures are logged through mail_log.
#ifndef MXKEEP_MAIL_AUTH_AUTH_DOMAINS_H
#define MXKEEP_MAIL_AUTH_AUTH_DOMAINS_H

#include <sqlite3.h>

// Password flags: one small bit set that travels with a password.
constexpr int kMailAuthPlainColumn = 1;     // cmusaslsecretPLAIN, not userPassword
constexpr int kMailAuthUserDisabled = 2;    // the user's status is non-zero
constexpr int kMailAuthDomainDisabled = 4;  // the domain's status is non-zero
constexpr int kMailAuthNoCreate = 8;        // domain lookup: do not create it

// mail_auth_rename_domain - give the domain row old_domain the name
// new_domain; its users keep their dom_id and so follow. An old name that
// is not in the database is no error (nothing changes, 0).
int mail_auth_rename_domain(const char* old_domain, const char* new_domain);

// mail_auth_domain_users - look domain up without changing anything: 1
// with its number of users in *users when it has a row, 0 when it has
// none, -1 (logged) on failure. The database is opened read-only and never
// created, so a missing file is a failure.
int mail_auth_domain_users(const char* domain, long* users);

// mail_auth_remove_domain - delete the domain; its users go with it.
int mail_auth_remove_domain(const char* domain);

// mail_auth_set_domain_status - 0 enables the domain, non-zero disables it.
int mail_auth_set_domain_status(const char* domain, int status);

// mail_auth_enable_domain - mail_auth_set_domain_status(domain, 0).
int mail_auth_enable_domain(const char* domain);

// mail_auth_add_domain - insert the domain on the open db, disabled when
// flags is non-zero. The new row id, or -1.
sqlite3_int64 mail_auth_add_domain(const char* domain, sqlite3* db, int flags);

// mail_auth_domain_id - the domain's id on the open db. A missing domain
// gives -1 when flags has kMailAuthNoCreate, else it is added with flags.
// -1 on failure.
sqlite3_int64 mail_auth_domain_id(const char* domain, sqlite3* db, int flags);

namespace zanth {
class SqliteDb;

// authDomainId - mail_auth_domain_id on an owned connection, for the user
// operations; when pacing fails the connection is abandoned (db.get() is
// null afterwards) and -1 returned.
sqlite3_int64 authDomainId(SqliteDb& db, const char* domain, int flags);
}  // namespace zanth

#endif  // MXKEEP_MAIL_AUTH_AUTH_DOMAINS_H
