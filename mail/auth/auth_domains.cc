// Mail domain operations on the authentication database. No explicit
// transaction is opened: each statement runs in SQLite's implicit one, so
// a failed statement changes nothing and earlier ones stay.
#include "mail/auth/auth_domains.h"

#include "common/mail_log.h"
#include "mail/auth/auth_db.h"
#include "mail/auth/auth_sqlite.h"

namespace {

using zanth::SqliteDb;
using zanth::SqliteStatement;
using zanth::kAuthOpenMessage;
using zanth::bindInt;
using zanth::bindLogged;
using zanth::bindText;

constexpr char kRenameDomainSql[] = "UPDATE domains SET name=? WHERE name=?";
constexpr char kRemoveDomainSql[] = "DELETE FROM domains WHERE name=?";
constexpr char kDomainStatusSql[] = "UPDATE domains SET status=? WHERE name=?";
constexpr char kAddDomainSql[] = "INSERT INTO domains (name, status) VALUES(?, ?)";
constexpr char kDomainIdSql[] = "SELECT id FROM domains WHERE name=?";
constexpr char kDomainUsersSql[] =
    "SELECT (SELECT COUNT(*) FROM users WHERE dom_id = d.id) FROM domains d WHERE d.name=?";

constexpr char kBindDomainTwoBlanks[] =
    "Unable to bind parameter domain name '%s' to  SQL statement for query '%s': %s";

// addDomain - mail_auth_add_domain on an owned connection.
sqlite3_int64 addDomain(SqliteDb& db, const char* domain, int flags) {
  SqliteStatement stmt;
  if (zanth::prepareLogged(db, stmt, kAddDomainSql) != 0) return -1;
  const int status = flags != 0 ? 1 : 0;
  if (!bindLogged(db, bindText(stmt, 1, domain), kBindDomainTwoBlanks, domain, kAddDomainSql) ||
      !bindLogged(db, bindInt(stmt, 2, status),
                  "Unable to bind parameter status '%d' for domain '%s' to SQL statement for "
                  "query '%s': %s",
                  status, domain, kAddDomainSql))
    return -1;
  if (zanth::runToDone(db, stmt,
                       "Unable to execute the mail domain authentication registration query: "
                       "%s") != 0)
    return -1;
  return sqlite3_last_insert_rowid(db.get());
}

}  // namespace

namespace zanth {

sqlite3_int64 authDomainId(SqliteDb& db, const char* domain, int flags) {
  SqliteStatement stmt;
  if (prepareLogged(db, stmt, kDomainIdSql) != 0) return -1;
  if (!bindLogged(db, bindText(stmt, 1, domain), kBindDomainTwoBlanks, domain, kDomainIdSql))
    return -1;
  int rc = stepRetry(db, stmt);
  if (rc == kSqliteRetryAborted) return -1;
  if (rc == SQLITE_ROW) return sqlite3_column_int64(stmt.get(), 0);
  stmt.finalize();
  if (rc != SQLITE_DONE) {
    mail_log(LOG_ERR, "Unable to execute the domain selection query: %s", db.errmsg());
    return -1;
  }
  if ((flags & kMailAuthNoCreate) != 0) return -1;
  return addDomain(db, domain, flags);
}

}  // namespace zanth

int mail_auth_rename_domain(const char* old_domain, const char* new_domain) {
  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kAuthOpenMessage) != 0) return -1;
  // The number of changed rows is not looked at: a domain the database
  // does not hold must not stop the rename of everything else.
  return zanth::runAndClose(
      db, kRenameDomainSql,
      [&](SqliteStatement& stmt) {
        return bindLogged(db, bindText(stmt, 1, new_domain),
                          "Unable to bind parameter new domain name '%s' to SQL statement for "
                          "query '%s': %s",
                          new_domain, kRenameDomainSql) &&
               bindLogged(db, bindText(stmt, 2, old_domain),
                          "Unable to bind parameter old domain name '%s' to SQL statement for "
                          "query '%s': %s",
                          old_domain, kRenameDomainSql);
      },
      "Unable to execute the mail domain authorization name change query: %s");
}

int mail_auth_domain_users(const char* domain, long* users) {
  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kAuthOpenMessage, SQLITE_OPEN_READONLY) != 0)
    return -1;
  SqliteStatement stmt;
  if (zanth::prepareLogged(db, stmt, kDomainUsersSql) != 0) return -1;
  if (!bindLogged(db, bindText(stmt, 1, domain), kBindDomainTwoBlanks, domain, kDomainUsersSql))
    return -1;
  const int rc = zanth::stepRetry(db, stmt);
  if (rc == zanth::kSqliteRetryAborted) return -1;
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    mail_log(LOG_ERR, "Unable to execute the domain selection query: %s", db.errmsg());
    return -1;
  }
  const int found = rc == SQLITE_ROW ? 1 : 0;
  *users = found ? static_cast<long>(sqlite3_column_int64(stmt.get(), 0)) : 0;
  stmt.finalize();
  return db.close() == 0 ? found : -1;
}

int mail_auth_remove_domain(const char* domain) {
  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kAuthOpenMessage) != 0) return -1;
  return zanth::runAndClose(
      db, kRemoveDomainSql,
      [&](SqliteStatement& stmt) {
        return bindLogged(db, bindText(stmt, 1, domain),
                          "Unable to bind parameter domain name '%s' to SQL statement for query "
                          "'%s': %s",
                          domain, kRemoveDomainSql);
      },
      "Unable to execute the domain mail authorization removal query: %s");
}

int mail_auth_set_domain_status(const char* domain, int status) {
  SqliteDb db;
  if (zanth::openAuthDb(db, mail_auth_db_path, kAuthOpenMessage) != 0) return -1;
  return zanth::runAndClose(
      db, kDomainStatusSql,
      [&](SqliteStatement& stmt) {
        return bindLogged(db, bindInt(stmt, 1, status),
                          "Unable to bind parameter status %d to  SQL statement for query '%s': %s",
                          status, kDomainStatusSql) &&
               bindLogged(db, bindText(stmt, 2, domain), kBindDomainTwoBlanks, domain,
                          kDomainStatusSql);
      },
      "Unable to execute the mail domain authorization status change query: %s");
}

int mail_auth_enable_domain(const char* domain) { return mail_auth_set_domain_status(domain, 0); }

sqlite3_int64 mail_auth_add_domain(const char* domain, sqlite3* db, int flags) {
  SqliteDb borrowed(db);
  sqlite3_int64 id = addDomain(borrowed, domain, flags);
  borrowed.release();  // the caller's connection stays open
  return id;
}

sqlite3_int64 mail_auth_domain_id(const char* domain, sqlite3* db, int flags) {
  SqliteDb borrowed(db);
  sqlite3_int64 id = zanth::authDomainId(borrowed, domain, flags);
  borrowed.release();  // the caller's connection stays open
  return id;
}
