// A real MariaDB server for the tests of the product database code, run
// inside the sandbox: data directory, socket, pid file and logs under
// /run/mysqld (the sandbox's tmpfs), listening only on the client library's
// default socket, with the general query log kept in mysql.general_log.
// Setup failures throw std::runtime_error with the server's own text.
//
// How a test file uses it: build it into mxkeep_db_tests, one ctest entry
// in one sandbox, where linking it registers a global environment that
// starts the server before the first test and stops it after the last
// (layout resets keep /run/mysqld); derive the fixture from ProductDbTest;
// insert each test's rows with server().exec("insert ..."); read what the
// code under test sent with server().adminLog().
#ifndef MXKEEP_TESTING_MARIADB_SERVER_H
#define MXKEEP_TESTING_MARIADB_SERVER_H

#include <gtest/gtest.h>
#include <mysql.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace testing_support {

// The password of the account "admin", as the fixture writes it (with a
// trailing newline) into /etc/orb/.orb.shadow.
constexpr char kDbAdminPassword[] = "s3cret-Adm1n";

// One command of the general query log.
struct LoggedCommand {
  long long thread = 0;  // the server's connection id
  std::string command;   // "Connect", "Query", "Quit", ...
  std::string argument;  // the statement text of a Query
};

class MariaDbServer final {
 public:
  // The one server of this test process.
  static MariaDbServer& instance();

  MariaDbServer(const MariaDbServer&) = delete;
  MariaDbServer& operator=(const MariaDbServer&) = delete;

  // start - initialises the data directory (first time only), starts the
  // server, waits until it accepts connections, creates the account admin.
  void start();
  // stop - shuts the server down and waits for it; nothing when stopped.
  void stop();
  bool running() const { return pid_ > 0; }

  // query - runs one or more statements (separated by ";") as root: the
  // rows of those that give any, NULL read as "NULL"; throws with the
  // server's message on the first error. exec - the same, rows dropped.
  std::vector<std::vector<std::string>> query(const std::string& sql);
  void exec(const std::string& sql) { query(sql); }

  // resetForTest - fresh database "orb" with every table empty, the
  // password file written, the query log emptied.
  void resetForTest();

  // adminLog - the commands of the account admin since the last reset.
  std::vector<LoggedCommand> adminLog();
  // adminQueries - the statement texts of adminLog, in order.
  std::vector<std::string> adminQueries();
  // waitForQuit - true once the log shows that connection `thread` has
  // quit; false after ten seconds. A client's close is not acknowledged by
  // the server, so its Quit is logged a moment after the client returns.
  bool waitForQuit(long long thread);

 private:
  MariaDbServer() = default;
  ~MariaDbServer();

  // The root connection, made on first use.
  MYSQL* root();

  pid_t pid_ = -1;
  MYSQL* root_ = nullptr;
};

// Fixture base of tests that use the product database.
class ProductDbTest : public ::testing::Test {
 protected:
  void SetUp() override;
  static MariaDbServer& server() { return MariaDbServer::instance(); }
};

}  // namespace testing_support

#endif  // MXKEEP_TESTING_MARIADB_SERVER_H
