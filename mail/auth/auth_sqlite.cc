// SQLite plumbing of the mail authentication database: the connection and
// statement owners and the logged open / prepare / step steps. Contention
// with other processes is met only by the busy timeout and the retry rule;
// there is no lock file of our own.
#include "mail/auth/auth_sqlite.h"

#include "common/mail_log.h"
#include "common/syscall.h"

namespace zanth {
namespace {

bool isBusy(int rc) { return rc == SQLITE_BUSY; }
bool isBusyOrLocked(int rc) { return rc == SQLITE_BUSY || rc == SQLITE_LOCKED; }

}  // namespace

SqliteDb::~SqliteDb() {
  // Nobody is left to hear about a failed close; errno stays the caller's.
  zanth::ErrnoSaver keep;
  close();
}

const char* SqliteDb::errmsg() const {
  return db_ != nullptr ? sqlite3_errmsg(db_) : kNoDbHandleText;
}

int SqliteDb::close() {
  if (db_ == nullptr) return 0;
  sqlite3* db = release();
  int rc = sqliteRetry([db] { return sqlite3_close(db); }, isBusy);
  return rc == kSqliteRetryAborted ? -1 : 0;
}

sqlite3* SqliteDb::release() {
  sqlite3* db = db_;
  db_ = nullptr;
  return db;
}

int SqliteStatement::finalize() {
  return stmt_ != nullptr ? sqlite3_finalize(release()) : SQLITE_OK;
}

sqlite3_stmt* SqliteStatement::release() {
  sqlite3_stmt* stmt = stmt_;
  stmt_ = nullptr;
  return stmt;
}

bool bindText(SqliteStatement& stmt, int index, const char* text, int length) {
  return sqlite3_bind_text(stmt.get(), index, text, length, SQLITE_STATIC) == SQLITE_OK;
}

bool bindInt(SqliteStatement& stmt, int index, int value) {
  return sqlite3_bind_int(stmt.get(), index, value) == SQLITE_OK;
}

bool bindId(SqliteStatement& stmt, int index, sqlite3_int64 id) {
  return sqlite3_bind_int64(stmt.get(), index, id) == SQLITE_OK;
}

int openAuthDb(SqliteDb& db, const char* path, const char* format, int flags) {
  if (sqlite3_open_v2(path, db.out(), flags, nullptr) != SQLITE_OK) {
    mail_log(LOG_ERR, format, path, db.errmsg());
    db.close();
    return -1;
  }
  sqlite3_busy_timeout(db.get(), kAuthBusyTimeoutMs);
  return 0;
}

int prepareLogged(SqliteDb& db, SqliteStatement& stmt, const char* sql) {
  int rc = sqliteRetry(
      [&db, &stmt, sql] { return sqlite3_prepare(db.get(), sql, -1, stmt.out(), nullptr); },
      isBusy);
  if (rc == kSqliteRetryAborted) {
    stmt.release();
    db.release();
    return -1;
  }
  if (rc != SQLITE_OK) {
    mail_log(LOG_ERR, "Unable to prepare SQL statement for query '%s': %s", sql, db.errmsg());
    return -1;
  }
  return 0;
}

int stepRetry(SqliteDb& db, SqliteStatement& stmt) {
  sqlite3_stmt* s = stmt.get();
  int rc = sqliteRetry(
      [s] {
        int result = sqlite3_step(s);
        if (isBusyOrLocked(result)) sqlite3_reset(s);
        return result;
      },
      isBusyOrLocked);
  if (rc == kSqliteRetryAborted) {
    stmt.release();
    db.release();
  }
  return rc;
}

int runToDone(SqliteDb& db, SqliteStatement& stmt, const char* exec_format) {
  int rc = stepRetry(db, stmt);
  if (rc == kSqliteRetryAborted) return -1;
  // Finalizing first makes the connection's message the specific one
  // (a constraint's text) rather than the step's generic error.
  stmt.finalize();
  if (rc != SQLITE_DONE) {
    mail_log(LOG_ERR, exec_format, db.errmsg());
    return -1;
  }
  return 0;
}

}  // namespace zanth
