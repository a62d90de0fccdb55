// Mail authentication database: where the SQLite file lives for each mail
// server style, how it is created with its schema, owner and modes, and how
// the installed mail server is detected. Plain functions returning 0 / -1
// (unless noted) that log every failure through mail_log; none throws.
#ifndef MXKEEP_MAIL_AUTH_AUTH_DB_H
#define MXKEEP_MAIL_AUTH_AUTH_DB_H

#include <sys/types.h>

#include <cstdio>

// Mail server styles; -1 stands for "could not be determined".
constexpr int kMailStyleQmail = 0;
constexpr int kMailStylePostfix = 1;

// Path of the database file every operation opens; starts at the qmail
// location. Set once, before the first operation.
extern const char* mail_auth_db_path;

// mail_auth_select_style - point mail_auth_db_path at the file of style 0
// or 1 and return 0; any other style leaves the path alone and returns
// style - 1.
int mail_auth_select_style(int style);

// mail_auth_set_path - use path, which the caller keeps alive.
void mail_auth_set_path(const char* path);

// mail_auth_detect_style - ask the control panel's feature query which
// mail server is installed: 0 qmail, 1 Postfix, -1 unknown or failure.
int mail_auth_detect_style();

// mail_auth_read_features - the style named by the feature query's output
// read from features (left open): 0, 1, or -1 when no line names one.
int mail_auth_read_features(FILE* features);

// mail_auth_recreate - delete the file at mail_auth_db_path and create an
// empty database with the schema, creating missing parent directories.
int mail_auth_recreate();

// mail_auth_init - select the path by style (other styles keep the current
// one), re-create the database and give it the style's owner and modes.
int mail_auth_init(int style);

// mail_auth_set_permissions - chown and chmod the database's directory,
// then the file itself.
int mail_auth_set_permissions(uid_t uid, gid_t gid, mode_t dir_mode, mode_t file_mode);

#endif  // MXKEEP_MAIL_AUTH_AUTH_DB_H
