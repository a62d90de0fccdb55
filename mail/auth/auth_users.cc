// Mail user operations on the authentication database. The domain of a
// user is looked up on the operation's own connection; only adding a user
// may create it. Reading operations open the file the ordinary way too:
// "readonly" in their open message only says what they do.
#include "mail/auth/auth_users.h"

#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/mail_log.h"
#include "common/syscall.h"
#include "mail/auth/auth_db.h"
#include "mail/auth/auth_sqlite.h"

namespace {

using zanth::SqliteDb;
using zanth::SqliteStatement;
using zanth::kAuthOpenMessage;
using zanth::bindId;
using zanth::bindInt;
using zanth::bindLogged;
using zanth::bindText;

constexpr char kOpenReadMessage[] = "Unable to open database(readonly) %s: %s";
constexpr char kNoSuchDomain[] = "No such domain '%s' in the mail authentication DB";
constexpr char kSelectFailed[] = "Unable to execute the user selection query: %s";

constexpr char kAddUserSql[] =
    "INSERT OR REPLACE INTO users (name, userPassword, status, dom_id) VALUES (?, ?, ?, ?)";
constexpr char kAddUserPlainSql[] =
    "INSERT OR REPLACE INTO users (name, cmusaslsecretPLAIN, status, dom_id) VALUES (?, ?, ?, ?)";
constexpr char kRemoveUserSql[] = "DELETE FROM users WHERE name=? AND dom_id=?";
constexpr char kRenameUserSql[] = "UPDATE users SET name=? WHERE name=? AND dom_id=?";
constexpr char kGetUserSql[] =
    "SELECT u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword, u.status AS "
    "userDisabled, d.status AS domainDisabled FROM users AS u, domains AS d WHERE u.dom_id = "
    "d.id AND u.name=? AND d.name=?";
constexpr char kListSql[] =
    "SELECT u.name || '@' || d.name as mailAddress, u.userPassword AS password, "
    "u.cmusaslsecretPLAIN AS encPassword, u.status AS userDisabled, d.status AS domainDisabled "
    "FROM users AS u, domains AS d WHERE u.dom_id = d.id";
constexpr char kListAllSuffix[] = "ORDER BY d.name, u.name";
constexpr char kListNamedSuffix[] = "AND u.name=?";
constexpr char kFetchDomainSql[] = "SELECT id, status FROM domains WHERE name=?";
constexpr char kFetchUserSql[] =
    "SELECT name, userPassword, cmusaslsecretPLAIN, status FROM users WHERE dom_id=? AND name=?";

constexpr char kBindDomainIdMessage[] =
    "Unable to bind parameter domain ID for mail address '%s@%s' to  SQL statement for query "
    "'%s': %s";


const char* columnText(SqliteStatement& stmt, int column) {
  return reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), column));
}

// choosePassword - the password a user is known by: userPassword unless it
// is null or empty, else cmusaslsecretPLAIN with kMailAuthPlainColumn.
const char* choosePassword(const char* user_password, const char* plain, int* flags) {
  if (user_password != nullptr && user_password[0] != '\0') return user_password;
  *flags |= kMailAuthPlainColumn;
  return plain;
}

int statusFlags(int user_status, int domain_status) {
  return (user_status != 0 ? kMailAuthUserDisabled : 0) |
         (domain_status != 0 ? kMailAuthDomainDisabled : 0);
}

// listUsers - the listing shared by both forms; a null local_part lists
// everybody in order.
int listUsers(const char* local_part, mail_auth_user_fn callback, void* context) {
  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kOpenReadMessage) != 0) return -1;
  char* raw_query = nullptr;
  if (asprintf(&raw_query, "%s %s", kListSql,
               local_part != nullptr ? kListNamedSuffix : kListAllSuffix) < 0) {
    mail_log(LOG_CRIT, "Insufficient memory");
    return -1;
  }
  zanth::UniqueCString query(raw_query);
  SqliteStatement stmt;
  if (zanth::prepareLogged(db, stmt, query.get()) != 0) return -1;
  if (local_part != nullptr &&
      !bindLogged(db, bindText(stmt, 1, local_part),
                  "Unable to bind parameter mailname '%s' to  SQL statement: %s", local_part))
    return -1;
  int result = 1;
  int rc;
  while ((rc = zanth::stepRetry(db, stmt)) == SQLITE_ROW) {
    const char* address = columnText(stmt, 0);
    if (address == nullptr || address[0] == '\0') {
      mail_log(LOG_WARNING, "NULL or empty mail address stored in the database, skipped");
      continue;
    }
    const char* user_password = columnText(stmt, 1);
    const char* plain = columnText(stmt, 2);
    if (user_password == nullptr && plain == nullptr) {
      mail_log(LOG_INFO,
               "empty password properties (both plain and encrypted) for user %s, skipped",
               address);
      continue;
    }
    int flags = statusFlags(sqlite3_column_int(stmt.get(), 3), sqlite3_column_int(stmt.get(), 4));
    const char* password = choosePassword(user_password, plain, &flags);
    result = callback(address, password, flags, context);
    if (result <= 0) break;
  }
  if (rc == zanth::kSqliteRetryAborted) return -1;
  stmt.finalize();
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    mail_log(LOG_ERR, kSelectFailed, db.errmsg());
    return -1;
  }
  return db.close() != 0 ? -1 : result;
}

// copyText - an owned copy of text (null stays null); false after logging
// when memory runs out.
bool copyText(const char* text, char** copy) {
  *copy = nullptr;
  if (text == nullptr) return true;
  *copy = strdup(text);
  if (*copy != nullptr) return true;
  mail_log(LOG_ERR, "System error: %s", std::strerror(errno));
  return false;
}

// userDomainId - the id of the domain a user is to be written under, or -1
// with the reason logged; a domain not there is reported by its name.
sqlite3_int64 userDomainId(SqliteDb& db, const char* domain, int flags) {
  const sqlite3_int64 id = zanth::authDomainId(db, domain, flags);
  if (id == -1 && db.get() != nullptr) mail_log(LOG_ERR, kNoSuchDomain, domain);
  return id;
}

}  // namespace

int mail_auth_add_user(const char* local_part, const char* domain, const char* password,
                       int flags) {
  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kAuthOpenMessage) != 0) return -1;
  // Only the domain-disabled bit reaches the lookup: a missing domain is
  // created on the spot, disabled when the caller says so.
  const sqlite3_int64 dom_id = userDomainId(db, domain, flags & kMailAuthDomainDisabled);
  if (dom_id == -1) return -1;
  const char* sql = (flags & kMailAuthPlainColumn) != 0 ? kAddUserPlainSql : kAddUserSql;
  const int status = (flags & kMailAuthUserDisabled) != 0 ? 1 : 0;
  return zanth::runAndClose(
      db, sql,
      [&](SqliteStatement& stmt) {
        return bindLogged(db, bindText(stmt, 1, local_part),
                          "Unable to bind parameter mailname '%s' to SQL statement for query "
                          "'%s': %s",
                          local_part, sql) &&
               bindLogged(db, bindText(stmt, 2, password),
                          "Unable to bind parameter password for mail address '%s@%s' to SQL "
                          "statement for query '%s': %s",
                          local_part, domain, sql) &&
               bindLogged(db, bindInt(stmt, 3, status),
                          "Unable to bind parameter status for mail address '%s@%s' to  SQL "
                          "statement for query '%s': %s",
                          local_part, domain, sql) &&
               bindLogged(db, bindId(stmt, 4, dom_id), kBindDomainIdMessage, local_part, domain,
                          sql);
      },
      "Unable to execute the mail authorization registration query: %s");
}

int mail_auth_remove_user(const char* local_part, const char* domain) {
  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kAuthOpenMessage) != 0) return -1;
  const sqlite3_int64 dom_id = zanth::authDomainId(db, domain, kMailAuthNoCreate);
  if (dom_id == -1) {
    // Without its domain the user cannot be there: nothing left to remove.
    if (db.get() == nullptr) return -1;
    return db.close();
  }
  return zanth::runAndClose(
      db, kRemoveUserSql,
      [&](SqliteStatement& stmt) {
        return bindLogged(db, bindText(stmt, 1, local_part),
                          "Unable to bind parameter mailname '%s' to  SQL statement for query "
                          "'%s': %s",
                          local_part, kRemoveUserSql) &&
               bindLogged(db, bindId(stmt, 2, dom_id), kBindDomainIdMessage, local_part, domain,
                          kRemoveUserSql);
      },
      "Unable to execute the mail authorization removal query: %s");
}

int mail_auth_rename_user(const char* old_local_part, const char* new_local_part,
                          const char* domain) {
  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kAuthOpenMessage) != 0) return -1;
  const sqlite3_int64 dom_id = userDomainId(db, domain, kMailAuthNoCreate);
  if (dom_id == -1) return -1;
  return zanth::runAndClose(
      db, kRenameUserSql,
      [&](SqliteStatement& stmt) {
        return bindLogged(db, bindText(stmt, 1, new_local_part),
                          "Unable to bind parameter new mailname '%s' to  SQL statement for "
                          "query '%s': %s",
                          new_local_part, kRenameUserSql) &&
               bindLogged(db, bindText(stmt, 2, old_local_part),
                          "Unable to bind parameter old mailname '%s' to  SQL statement for "
                          "query '%s': %s",
                          old_local_part, kRenameUserSql) &&
               bindLogged(db, bindId(stmt, 3, dom_id), kBindDomainIdMessage, old_local_part,
                          domain, kRenameUserSql);
      },
      "Unable to execute the mail authorization renaming query: %s");
}

int mail_auth_get_user(const char* address, mail_auth_user_fn callback, void* context) {
  const char* at = address != nullptr ? std::strchr(address, '@') : nullptr;
  if (at == nullptr || at == address || at[1] == '\0') {
    mail_log(LOG_ERR, "Invalid mail address '%s'", address != nullptr ? address : "");
    return -1;
  }
  const int local_length = static_cast<int>(at - address);
  const char* domain = at + 1;

  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kOpenReadMessage) != 0) return -1;
  SqliteStatement stmt;
  if (zanth::prepareLogged(db, stmt, kGetUserSql) != 0) return -1;
  if (!bindLogged(db, bindText(stmt, 1, address, local_length),
                  "Unable to bind parameter mailname '%.*s' to SQL statement for query '%s': %s",
                  local_length, address, kGetUserSql) ||
      !bindLogged(db, bindText(stmt, 2, domain),
                  "Unable to bind parameter domain name '%s' to SQL statement for query '%s': %s",
                  domain, kGetUserSql))
    return -1;
  int result;
  const int rc = zanth::stepRetry(db, stmt);
  if (rc == zanth::kSqliteRetryAborted) return -1;
  if (rc == SQLITE_ROW) {
    const char* user_password = columnText(stmt, 0);
    const char* plain = columnText(stmt, 1);
    if (user_password == nullptr && plain == nullptr) {
      mail_log(LOG_INFO, "NULL password fields (noth plain and encrypted) for user %s, skipped",
               address);
      result = -1;
    } else {
      int flags =
          statusFlags(sqlite3_column_int(stmt.get(), 2), sqlite3_column_int(stmt.get(), 3));
      const char* password = choosePassword(user_password, plain, &flags);
      result = callback(address, password, flags, context);
    }
  } else if (rc == SQLITE_DONE) {
    mail_log(LOG_INFO, "No such user '%s' in mail authorization database", address);
    result = 1;
  } else {
    stmt.finalize();
    mail_log(LOG_ERR, kSelectFailed, db.errmsg());
    result = -1;
  }
  stmt.finalize();
  return db.close() != 0 ? -1 : result;
}

int mail_auth_list_users(mail_auth_user_fn callback, void* context) {
  return listUsers(nullptr, callback, context);
}

int mail_auth_list_users_named(const char* local_part, mail_auth_user_fn callback,
                               void* context) {
  return listUsers(local_part, callback, context);
}

int mail_auth_fetch_user(mail_auth_user_record* record, const char* local_part,
                         const char* domain) {
  *record = mail_auth_user_record{nullptr, nullptr, 0};
  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kOpenReadMessage) != 0) return -1;

  SqliteStatement domain_stmt;
  if (zanth::prepareLogged(db, domain_stmt, kFetchDomainSql) != 0) return -1;
  if (!bindLogged(db, bindText(domain_stmt, 1, domain),
                  "Unable to bind parameter domain id for: %s: %s", domain))
    return -1;
  int rc = zanth::stepRetry(db, domain_stmt);
  if (rc == zanth::kSqliteRetryAborted) return -1;
  if (rc != SQLITE_ROW) {
    domain_stmt.finalize();
    if (rc == SQLITE_DONE)
      mail_log(LOG_ERR, "Unable to get mail domain id for: %s", domain);
    else
      mail_log(LOG_ERR, "Unable to get domain id: %s", db.errmsg());
    return -1;
  }
  const sqlite3_int64 dom_id = sqlite3_column_int64(domain_stmt.get(), 0);
  const int domain_status = sqlite3_column_int(domain_stmt.get(), 1);
  domain_stmt.finalize();

  SqliteStatement user_stmt;
  if (zanth::prepareLogged(db, user_stmt, kFetchUserSql) != 0) return -1;
  if (!bindLogged(db, bindId(user_stmt, 1, dom_id),
                  "Unable to bind parameter bind domain id for: %s: %s", domain) ||
      !bindLogged(db, bindText(user_stmt, 2, local_part),
                  "Unable to bind parameter bind mailname %s: %s", local_part))
    return -1;
  rc = zanth::stepRetry(db, user_stmt);
  if (rc == zanth::kSqliteRetryAborted) return -1;
  if (rc != SQLITE_ROW) {
    user_stmt.finalize();
    if (rc == SQLITE_DONE) return db.close();
    mail_log(LOG_ERR, "Unable to get passwd for mailname: %s: %s", local_part, db.errmsg());
    return -1;
  }
  int flags = statusFlags(sqlite3_column_int(user_stmt.get(), 3), domain_status);
  const char* password =
      choosePassword(columnText(user_stmt, 1), columnText(user_stmt, 2), &flags);
  char* name_copy;
  char* password_copy;
  if (!copyText(columnText(user_stmt, 0), &name_copy)) return -1;
  zanth::UniqueCString name_owner(name_copy);
  if (!copyText(password, &password_copy)) return -1;
  zanth::UniqueCString password_owner(password_copy);
  user_stmt.finalize();
  if (db.close() != 0) return -1;
  *record = mail_auth_user_record{name_owner.release(), password_owner.release(), flags};
  return 0;
}

void mail_auth_free_record(mail_auth_user_record* record) {
  if (record == nullptr) return;
  std::free(record->name);
  std::free(record->password);
  record->name = nullptr;
  record->password = nullptr;
}

int mail_auth_clone_user(const char* old_local_part, const char* old_domain,
                         const char* new_local_part, const char* new_domain) {
  mail_auth_user_record record;
  if (mail_auth_fetch_user(&record, old_local_part, old_domain) != 0) {
    mail_log(LOG_ERR, "Unable to get users list from MTA password database");
    return -1;
  }
  if (record.name == nullptr) return 0;
  const int result = mail_auth_add_user(new_local_part, new_domain, record.password, record.flags);
  mail_auth_free_record(&record);
  return result;
}

int mail_auth_set_or_remove_user(const char* local_part, const char* domain,
                                 const char* password, int flags) {
  const int result = password != nullptr && password[0] != '\0'
                         ? mail_auth_add_user(local_part, domain, password, flags)
                         : mail_auth_remove_user(local_part, domain);
  return result == 0 ? 0 : -1;
}
