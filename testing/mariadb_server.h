// A real MariaDB server for the product database tests, one child of the
// test binary (mxkeep_db_tests) started before its first test and stopped
// after its last, on the client library's default socket under /run/mysqld,
// its general query log kept in a table. Fixtures derive from ProductDbTest;
// set-up failures throw std::runtime_error with the server's own text.
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

  // start - makes the data directory the first time, starts the server,
  // waits until it accepts connections, creates the account admin.
  void start();
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
