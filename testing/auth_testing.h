// Test helpers of the authentication database tests: SQL that bypasses the
// code under test and a scratch database whose messages are captured.
#ifndef MXKEEP_TESTING_AUTH_TESTING_H
#define MXKEEP_TESTING_AUTH_TESTING_H

#include <sqlite3.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "common/mail_log.h"
#include "mail/auth/auth_db.h"
#include "testing/log_capture.h"
#include "testing/test_support.h"

namespace auth_testing {

using Rows = std::vector<std::string>;

using testing_support::captured_log;

// Runs sql on its own connection: the rows, columns joined by '|', NULL
// spelled out. SQLite's error text goes to *error, or throws without one.
inline Rows sqlRows(const std::string& path, const std::string& sql, std::string* error = nullptr) {
  Rows rows;
  auto collect = [](void* out, int n, char** values, char**) {
    std::string row;
    for (int i = 0; i < n; ++i) row += (i ? "|" : "") + std::string(values[i] ? values[i] : "NULL");
    static_cast<Rows*>(out)->push_back(row);
    return 0;
  };
  sqlite3* db = nullptr;
  char* message = nullptr;
  int rc = sqlite3_open(path.c_str(), &db);
  if (rc == SQLITE_OK) rc = sqlite3_exec(db, sql.c_str(), collect, &rows, &message);
  std::string text = message ? message : rc == SQLITE_OK ? "" : sqlite3_errmsg(db);
  sqlite3_free(message);
  sqlite3_close(db);
  if (error == nullptr && rc != SQLITE_OK) throw std::runtime_error(sql + ": " + text);
  if (error != nullptr) *error = text;
  return rows;
}

// A fresh database made by mail_auth_recreate and seeded with sql; while it
// lives it is mail_auth_db_path and mail_log goes to captured_log.
struct ScratchDb {
  explicit ScratchDb(const std::string& seed = "") {
    mail_auth_set_path(path.c_str());
    if (mail_auth_recreate() != 0) throw std::runtime_error("cannot create " + path);
    sqlRows(path, seed);
    testing_support::startLogCapture();
  }
  ~ScratchDb() {
    mail_auth_set_path(saved_path);
    testing_support::log_capture.reset();
  }
  Rows rows(const std::string& sql) const { return sqlRows(path, sql); }

  const char* const saved_path = mail_auth_db_path;
  const testing_support::TempDir dir;
  const std::string path = dir / "passwd.db";
};

// Two domains, the second disabled; bob has a userPassword, alice a plain one.
constexpr char kSeed[] =
    "INSERT INTO domains (id, name, status) VALUES (1, 'example.org', 0), (2, 'example.com', 1);"
    "INSERT INTO users (dom_id, name, userPassword, cmusaslsecretPLAIN, status) VALUES"
    " (1, 'bob', 'b1', NULL, 0), (1, 'alice', NULL, 'a1', 0), (2, 'carol', 'c1', NULL, 1);";

}  // namespace auth_testing

#endif  // MXKEEP_TESTING_AUTH_TESTING_H
