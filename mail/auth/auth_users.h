// Mail users in the authentication database: adding (or replacing),
// removing and renaming users, looking one up, listing them to a callback,
// and copying a user's record to another address. Each operation opens
// mail_auth_db_path and closes it again before returning. Results are
// 0 / -1 unless noted; failures are logged through mail_log. Kept for the
// control panel: neither command reaches it.
#ifndef MXKEEP_MAIL_AUTH_AUTH_USERS_H
#define MXKEEP_MAIL_AUTH_AUTH_USERS_H

#include "mail/auth/auth_domains.h"

// Called once per user with the address (or local part) text, the user's
// password and its password flags (kMailAuth*), and the caller's context.
// The password is userPassword when present and not empty, else
// cmusaslsecretPLAIN (then kMailAuthPlainColumn is set), which may be
// null. Both texts live only for the call.
using mail_auth_user_fn = int (*)(const char* address, const char* password, int flags,
                                  void* context);

// One user as mail_auth_fetch_user found it. name and password are owned
// copies, released by mail_auth_free_record; name is null when no user.
struct mail_auth_user_record {
  char* name;
  char* password;
  int flags;
};

// mail_auth_add_user - insert or replace the user; flags: kMailAuthPlainColumn
// picks the password column (the other one becomes null), kMailAuthUserDisabled
// disables the user, kMailAuthDomainDisabled disables a domain that has to
// be created for it.
int mail_auth_add_user(const char* local_part, const char* domain, const char* password,
                       int flags);

// mail_auth_remove_user - delete the user; an unknown domain is no error.
int mail_auth_remove_user(const char* local_part, const char* domain);

// mail_auth_rename_user - change the local part of a user of domain.
int mail_auth_rename_user(const char* old_local_part, const char* new_local_part,
                          const char* domain);

// mail_auth_get_user - call callback for the user "local@domain": the
// callback's result, 1 when there is no such user, -1 on failure, on an
// invalid address or when both password columns are null.
int mail_auth_get_user(const char* address, mail_auth_user_fn callback, void* context);

// mail_auth_list_users - call callback for every user, ordered by domain
// name and then local part, while it returns more than 0. The last
// callback result (1 when nothing was listed), or -1 on failure.
int mail_auth_list_users(mail_auth_user_fn callback, void* context);

// mail_auth_list_users_named - as mail_auth_list_users, for the users with
// this local part in any domain.
int mail_auth_list_users_named(const char* local_part, mail_auth_user_fn callback,
                               void* context);

// mail_auth_fetch_user - fill record (overwritten, not freed) with the
// user; 0 also when there is no such user (record left empty), -1 on
// failure or when the domain is unknown.
int mail_auth_fetch_user(mail_auth_user_record* record, const char* local_part,
                         const char* domain);

// mail_auth_free_record - free the record's copies and null them; a null
// record is ignored.
void mail_auth_free_record(mail_auth_user_record* record);

// mail_auth_clone_user - add (or replace) new_local@new_domain with the
// password and flags of old_local@old_domain, creating the new domain when
// it is missing. 0 when there is no old user, else the add's result.
int mail_auth_clone_user(const char* old_local_part, const char* old_domain,
                         const char* new_local_part, const char* new_domain);

// mail_auth_set_or_remove_user - add the user when password is present and
// not empty, otherwise remove it.
int mail_auth_set_or_remove_user(const char* local_part, const char* domain,
                                 const char* password, int flags);

#endif  // MXKEEP_MAIL_AUTH_AUTH_USERS_H
