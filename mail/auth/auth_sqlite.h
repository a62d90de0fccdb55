// SQLite plumbing of the mail authentication database: owners for the
// connection and the prepared statement, the retry rule that paces every
// call which can meet a database locked by another process, and the open,
// prepare, bind and run steps shared by all operations. Failures are logged
// once through mail_log; nothing here throws.
#ifndef MXKEEP_MAIL_AUTH_AUTH_SQLITE_H
#define MXKEEP_MAIL_AUTH_AUTH_SQLITE_H

#include <sqlite3.h>
#include <time.h>

#include <cerrno>

#include "common/mail_log.h"
#include "common/syscall.h"
#include "process/termination.h"

namespace zanth {

// What a retried call returns when its pause (nanosleep) failed; never an
// SQLite result code.
constexpr int kSqliteRetryAborted = -1;

// Growth of the pause between attempts, in nanoseconds.
constexpr long kSqliteRetryStepNs = 10000;

// Busy timeout every connection gets, in milliseconds.
constexpr int kAuthBusyTimeoutMs = 50;

// What a failed read-write open logs: the path, then SQLite's message.
constexpr char kAuthOpenMessage[] = "Unable to open database %s: %s";

// Stands in for sqlite3_errmsg when there is no connection to ask.
constexpr char kNoDbHandleText[] = "general DB errror";

// sqliteRetry - the retry rule. Calls attempt() and, after every attempt
// (successful or not), sleeps for the loop's delay when it is above zero
// and then lets the delay grow by kSqliteRetryStepNs: attempt k is followed
// by a pause of (k - 1) * 10 microseconds. Repeats while again(result)
// holds, until the wait is over (a termination signal, or the process's
// wait limit: see process::BoundedWait). Returns the last result, or
// kSqliteRetryAborted at once when nanosleep fails (an interrupted sleep
// is simply repeated).
template <class Attempt, class Again>
int sqliteRetry(Attempt attempt, Again again) {
  const process::BoundedWait wait;
  long delay_ns = 0;
  for (;;) {
    int rc = attempt();
    if (delay_ns > 0) {
      const struct timespec pause = {0, delay_ns};
      if (retryEintr([&pause] { return ::nanosleep(&pause, nullptr); }) != 0)
        return kSqliteRetryAborted;
    }
    delay_ns += kSqliteRetryStepNs;
    if (!again(rc) || wait.over()) return rc;
  }
}

// Owns a connection; closes it under the retry rule on destruction. A
// close that cannot be paced leaves the handle open on purpose: it is
// abandoned rather than closed without the rule.
//
//   SqliteDb db;
//   if (openAuthDb(db, path, "Unable to open database %s: %s") != 0) return -1;
//   ... work with db.get() ...
//   return db.close();
class SqliteDb final {
 public:
  SqliteDb() = default;
  explicit SqliteDb(sqlite3* db) : db_(db) {}
  SqliteDb(const SqliteDb&) = delete;
  SqliteDb& operator=(const SqliteDb&) = delete;
  ~SqliteDb();

  sqlite3* get() const { return db_; }
  sqlite3** out() { return &db_; }
  // sqlite3_errmsg of the connection, or kNoDbHandleText without one.
  const char* errmsg() const;
  // close - close under the retry rule: 0, or -1 when pacing failed (the
  // handle is then abandoned). Closing nothing succeeds.
  int close();
  // Gives up ownership without closing.
  sqlite3* release();

 private:
  sqlite3* db_ = nullptr;
};

// Owns a prepared statement; finalizes it on destruction. Declare it after
// the SqliteDb it belongs to, so that it is finalized before the close.
class SqliteStatement final {
 public:
  SqliteStatement() = default;
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;
  ~SqliteStatement() { finalize(); }

  sqlite3_stmt* get() const { return stmt_; }
  sqlite3_stmt** out() { return &stmt_; }
  // Finalizes now; sqlite3_finalize's result (SQLITE_OK for none).
  int finalize();
  sqlite3_stmt* release();

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

// bindText, bindInt, bindId - bind one parameter; texts are not copied
// (length -1: up to the NUL), so they must outlive the statement's steps.
// True on success.
bool bindText(SqliteStatement& stmt, int index, const char* text, int length = -1);
bool bindInt(SqliteStatement& stmt, int index, int value);
bool bindId(SqliteStatement& stmt, int index, sqlite3_int64 id);

// bindLogged - pass on `bound`, the result of one bind; when it failed, log
// format with args followed by the connection's message (the format's last
// %s) at LOG_ERR first:
//
//   if (!bindLogged(db, bindText(stmt, 1, domain), kBindDomain, domain, sql)) return -1;
template <class... Args>
bool bindLogged(const SqliteDb& db, bool bound, const char* format, Args... args) {
  if (!bound) mail_log(LOG_ERR, format, args..., db.errmsg());
  return bound;
}

// openAuthDb - sqlite3_open_v2 of path with flags (by default read-write,
// created when missing, as sqlite3_open does) and the busy timeout. On
// failure logs format (path, then SQLite's or the stand-in text) at
// priority 3, closes whatever handle was returned and gives -1; 0 on success.
int openAuthDb(SqliteDb& db, const char* path, const char* format,
               int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);

// prepareLogged - sqlite3_prepare of sql, repeated while busy. 0, or -1
// after logging "Unable to prepare SQL statement for query ..." (or with
// both owners abandoned when pacing failed: db.get() is then null).
int prepareLogged(SqliteDb& db, SqliteStatement& stmt, const char* sql);

// stepRetry - sqlite3_step, resetting the statement and repeating while
// the database is busy or locked. Returns the step's result; when pacing
// failed, kSqliteRetryAborted with both owners abandoned.
int stepRetry(SqliteDb& db, SqliteStatement& stmt);

// runToDone - step a writing statement to its end, finalize it, and log
// exec_format (one %s: SQLite's message) when it did not finish with
// SQLITE_DONE. 0 / -1; nothing is logged when pacing failed.
int runToDone(SqliteDb& db, SqliteStatement& stmt, const char* exec_format);

// runAndClose - the life of one writing statement on an open connection:
// prepare sql, let bind(stmt) bind its parameters (false once it has logged
// why not), run it to its end, close the connection. 0 / -1, each failure
// logged once where it happened.
template <class Bind>
int runAndClose(SqliteDb& db, const char* sql, Bind bind, const char* exec_format) {
  SqliteStatement stmt;
  if (prepareLogged(db, stmt, sql) != 0 || !bind(stmt)) return -1;
  if (runToDone(db, stmt, exec_format) != 0) return -1;
  return db.close();
}

}  // namespace zanth

#endif  // MXKEEP_MAIL_AUTH_AUTH_SQLITE_H
