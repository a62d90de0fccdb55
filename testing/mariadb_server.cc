// The test MariaDB server: one mariadbd child of the test process, its
// data directory made once with mariadb-install-db, a root connection over
// the socket for the fixture's own statements, and the per-test schema.
#include "testing/mariadb_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "testing/test_support.h"

namespace testing_support {
namespace {

constexpr char kRunDir[] = "/run/mysqld";
constexpr char kDataDir[] = "/run/mysqld/data";
constexpr char kSocket[] = "/run/mysqld/mysqld.sock";
constexpr char kErrorLog[] = "/run/mysqld/error.log";
constexpr char kPasswordFile[] = "/etc/orb/.orb.shadow";
constexpr auto kPollPause = std::chrono::milliseconds(10);
constexpr int kStartPolls = 6000;  // a minute
constexpr int kQuitPolls = 1000;   // ten seconds

// The tables and columns the product database queries read.
constexpr char kSchema[] =
    "DROP DATABASE IF EXISTS orb;"
    "CREATE DATABASE orb;"
    "USE orb;"
    "CREATE TABLE misc (param VARCHAR(245) PRIMARY KEY, val VARCHAR(255));"
    "CREATE TABLE clients (id INT UNSIGNED PRIMARY KEY, email VARCHAR(255));"
    "CREATE TABLE Limits (id INT UNSIGNED, limit_name VARCHAR(245), value VARCHAR(255));"
    "CREATE TABLE dns_zone (id INT UNSIGNED PRIMARY KEY, name VARCHAR(255));"
    "CREATE TABLE dns_recs (id INT UNSIGNED AUTO_INCREMENT PRIMARY KEY,"
    " dns_zone_id INT UNSIGNED, type VARCHAR(16), host VARCHAR(255), val VARCHAR(255));"
    "CREATE TABLE domains (id INT UNSIGNED PRIMARY KEY, name VARCHAR(255), status BIGINT,"
    " cl_id INT UNSIGNED, limits_id INT UNSIGNED, dns_zone_id INT UNSIGNED);"
    "CREATE TABLE dom_param (dom_id INT UNSIGNED, param VARCHAR(245), val VARCHAR(255));"
    "CREATE TABLE DomainServices (id INT UNSIGNED AUTO_INCREMENT PRIMARY KEY,"
    " dom_id INT UNSIGNED, type VARCHAR(32), parameters_id INT UNSIGNED);"
    "CREATE TABLE Parameters (id INT UNSIGNED, parameter VARCHAR(245), value VARCHAR(255));"
    "CREATE TABLE subdomains (id INT UNSIGNED AUTO_INCREMENT PRIMARY KEY,"
    " dom_id INT UNSIGNED, name VARCHAR(255));"
    "CREATE TABLE hosting (dom_id INT UNSIGNED PRIMARY KEY, fp VARCHAR(5), fp_ssl VARCHAR(5));"
    "CREATE TABLE domainaliases (id INT UNSIGNED AUTO_INCREMENT PRIMARY KEY,"
    " name VARCHAR(255), dom_id INT UNSIGNED);"
    "TRUNCATE TABLE mysql.general_log";

// Connections of the account admin carry this in the log's user_host.
constexpr char kAdminHostPattern[] = "%[admin] @ localhost%";

std::string errorLogTail() {
  std::string log = pathExists(kErrorLog) ? readFile(kErrorLog) : "";
  return log.size() > 2000 ? log.substr(log.size() - 2000) : log;
}

class MariaDbEnvironment final : public ::testing::Environment {
 public:
  void SetUp() override {
    try {
      MariaDbServer::instance().start();
    } catch (const std::exception& e) {
      FAIL() << "cannot start the test MariaDB server: " << e.what();
    }
  }
  void TearDown() override { MariaDbServer::instance().stop(); }
};

::testing::Environment* const g_environment =
    ::testing::AddGlobalTestEnvironment(new MariaDbEnvironment);

}  // namespace

MariaDbServer& MariaDbServer::instance() {
  static MariaDbServer server;
  return server;
}

MariaDbServer::~MariaDbServer() { stop(); }

void MariaDbServer::start() {
  if (running()) return;
  if (!pathExists(kDataDir)) {
    mkdir(kRunDir, 0755);
    RunResult install = runProgram({"/usr/bin/mariadb-install-db", "--no-defaults",
                                    std::string("--datadir=") + kDataDir, "--user=root",
                                    "--auth-root-authentication-method=socket", "--skip-test-db"});
    if (install.exitCode() != 0)
      throw std::runtime_error("mariadb-install-db failed:\n" + install.out + install.err);
  }

  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    // The server must not outlive a test process that dies.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    execl("/usr/sbin/mariadbd", "mariadbd", "--no-defaults",
          (std::string("--datadir=") + kDataDir).c_str(), "--user=root",
          (std::string("--socket=") + kSocket).c_str(), "--pid-file=/run/mysqld/mysqld.pid",
          (std::string("--log-error=") + kErrorLog).c_str(), "--skip-networking", "--general-log=1",
          "--log-output=TABLE", "--innodb-buffer-pool-size=16M", static_cast<char*>(nullptr));
    _exit(127);
  }
  pid_ = pid;

  // Ready once a connection over the socket succeeds.
  for (int polls = 0;; ++polls) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error("mariadbd exited during start-up:\n" + errorLogTail());
    }
    try {
      root();
      break;
    } catch (const std::runtime_error&) {
      if (polls >= kStartPolls) {
        stop();
        throw std::runtime_error("mariadbd accepts no connections:\n" + errorLogTail());
      }
    }
    std::this_thread::sleep_for(kPollPause);
  }
  exec(std::string("CREATE USER IF NOT EXISTS admin@localhost IDENTIFIED BY '") + kDbAdminPassword +
       "';GRANT ALL ON *.* TO admin@localhost");
}

void MariaDbServer::stop() {
  if (root_ != nullptr) {
    mysql_close(root_);
    root_ = nullptr;
  }
  if (!running()) return;
  kill(pid_, SIGTERM);
  int status;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

MYSQL* MariaDbServer::root() {
  if (!running()) throw std::runtime_error("the test MariaDB server is not running");
  if (root_ == nullptr) {
    MYSQL* conn = mysql_init(nullptr);
    if (conn == nullptr) throw std::runtime_error("mysql_init failed");
    if (mysql_real_connect(conn, "localhost", "root", nullptr, nullptr, 0, kSocket,
                           CLIENT_MULTI_STATEMENTS) == nullptr) {
      std::string text = mysql_error(conn);
      mysql_close(conn);
      throw std::runtime_error("root connection: " + text);
    }
    root_ = conn;
  }
  return root_;
}

std::vector<std::vector<std::string>> MariaDbServer::query(const std::string& sql) {
  MYSQL* conn = root();
  std::vector<std::vector<std::string>> rows;
  for (int rc = mysql_real_query(conn, sql.data(), sql.size()); rc != -1;
       rc = mysql_next_result(conn)) {
    if (rc != 0) throw std::runtime_error("test SQL failed: " + std::string(mysql_error(conn)));
    MYSQL_RES* res = mysql_store_result(conn);
    if (res == nullptr && mysql_field_count(conn) != 0)
      throw std::runtime_error("test query has no result: " + std::string(mysql_error(conn)));
    if (res == nullptr) continue;  // a statement without rows
    const unsigned fields = mysql_num_fields(res);
    while (MYSQL_ROW row = mysql_fetch_row(res)) {
      rows.emplace_back();
      for (unsigned i = 0; i < fields; ++i) rows.back().push_back(row[i] ? row[i] : "NULL");
    }
    mysql_free_result(res);
  }
  return rows;
}

void MariaDbServer::resetForTest() {
  exec(kSchema);
  writeFile(kPasswordFile, std::string(kDbAdminPassword) + "\n", 0600);
}

std::vector<LoggedCommand> MariaDbServer::adminLog() {
  std::vector<LoggedCommand> log;
  for (const auto& row :
       query(std::string("SELECT thread_id, command_type, argument FROM mysql.general_log"
                         " WHERE user_host LIKE '") +
             kAdminHostPattern + "'")) {
    log.push_back({std::stoll(row[0]), row[1], row[2]});
  }
  return log;
}

std::vector<std::string> MariaDbServer::adminQueries() {
  std::vector<std::string> queries;
  for (const LoggedCommand& c : adminLog())
    if (c.command == "Query") queries.push_back(c.argument);
  return queries;
}

bool MariaDbServer::waitForQuit(long long thread) {
  for (int polls = 0; polls < kQuitPolls; ++polls) {
    for (const LoggedCommand& c : adminLog())
      if (c.thread == thread && c.command == "Quit") return true;
    std::this_thread::sleep_for(kPollPause);
  }
  return false;
}

void ProductDbTest::SetUp() {
  ASSERT_TRUE(server().running()) << "the test MariaDB server is not running";
  server().resetForTest();
}

}  // namespace testing_support
