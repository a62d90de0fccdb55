// Tests of product database access against the real MariaDB server of
// testing/mariadb_server.h: the statements the server received, values read
// from real rows, and the exact messages of failures from real causes.
#include "common/product_db.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "testing/child.h"
#include "testing/mariadb_server.h"
#include "testing/test_support.h"

namespace testing_support {
namespace {

// A query run in a child (queries print through report_error): true when it
// gave its failure value. line is the first line it must print, the same on
// both streams.
struct Reported {
  std::function<bool()> failed;
  std::string line;
};

void expectReported(const std::vector<Reported>& cases) {
  for (const Reported& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 80));
    RunResult r = runInChild([&c] { return c.failed() ? 0 : 1; });
    EXPECT_EQ(0, r.exitCode());
    EXPECT_EQ(r.out, r.err);
    EXPECT_EQ(c.line, r.out.substr(0, r.out.find('\n')));
  }
}

constexpr char kShadow[] = "/etc/orb/.orb.shadow";

bool statusFails(const char* dom_id) {
  unsigned int status;
  return db_get_domain_status(dom_id, &status, nullptr) == -1;
}

class ProductDb : public ProductDbTest {
 protected:
  // A connection set up as the queries' own callers make it.
  static zanth::DbConnection connect() {
    char err[256] = "";
    zanth::DbConnection conn(db_connect_setup(err, sizeof err));
    EXPECT_NE(nullptr, conn.get()) << err;
    return conn;
  }
};

TEST_F(ProductDb, ConnectsWithTheFirstLineOfThePasswordFileOrFillsTheErrorBuffer) {
  struct Restart {
    ~Restart() { MariaDbServer::instance().start(); }
  } restart;
  const std::string password = kDbAdminPassword;
  struct Case {
    std::function<void()> cause;
    std::string message;  // empty: connected
  } cases[] = {
      {[] { unlink(kShadow); }, "Unable to open admin password file: No such file or directory"},
      {[] { writeFile(kShadow, "wrong\n", 0600); },
       "Unable to connect to Zanth Database: Access denied for user 'admin'@'localhost' "
       "(using password: YES)"},
      {[&] { writeFile(kShadow, password, 0600); }, ""},
      {[&] { writeFile(kShadow, password + "\n\nsecond\n", 0600); }, ""},
      {[] { server().exec("DROP TABLE orb.misc"); },
       "DB error (mysql41 compatible query) 1146: Table 'orb.misc' doesn't exist"},
      {[] { server().stop(); },
       "Unable to connect to Zanth Database: Can't connect to local server through socket "
       "'/run/mysqld/mysqld.sock' (2)"},
  };
  for (const Case& c : cases) {
    c.cause();
    char err[256] = "";
    zanth::DbConnection conn(db_connect_setup(err, sizeof err));
    EXPECT_EQ(c.message.empty(), conn.get() != nullptr) << c.message;
    EXPECT_EQ(c.message, err);
  }
  // A query given no connection reports that it could not make one.
  expectReported({{[] { return db_get_client_id("1", nullptr) == -1; },
                   "Unable to connect to the mysql database"}});
}

TEST_F(ProductDb, SetNamesFollowsTheMysql41Parameter) {
  const std::string kProbe = "SELECT val FROM misc WHERE param='mysql41_compatible'";
  struct Case {
    const char* row;  // the misc row's value, or null for no row
    const char* names;
    int flag;
  } cases[] = {
      {"'true'", "SET NAMES utf8", 1},
      {nullptr, "SET NAMES binary", 0},
      {"'false'", "SET NAMES binary", 0},
      {"''", "SET NAMES binary", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.row != nullptr ? c.row : "absent");
    server().resetForTest();
    if (c.row != nullptr)
      server().exec(std::string("INSERT INTO orb.misc VALUES ('mysql41_compatible', ") + c.row +
                    ")");
    zanth::DbConnection conn = connect();
    EXPECT_EQ(c.flag, db_mysql41_compatible());
    std::vector<std::string> expected = {"set foreign_key_checks=0",
                                         "SHOW VARIABLES LIKE 'version'", kProbe, c.names};
    EXPECT_EQ(expected, server().adminQueries());
  }
}

TEST(ProductDbVersion, OnlyServersBefore41GetNoSetNames) {
  for (const char* old : {"3.23.58", "4.0.27-log"})
    EXPECT_EQ(1, db_version_predates_41(old)) << old;
  for (const char* newer : {"4.1.22", "4.10.1", "10.11.19-MariaDB", "4.0", "3"})
    EXPECT_EQ(0, db_version_predates_41(newer)) << newer;
}

TEST_F(ProductDb, LookupsReadRealRowsOnTheGivenConnection) {
  server().exec(
      "USE orb;"
      "INSERT INTO clients VALUES (7, 'owner@example.org');"
      "INSERT INTO dns_zone VALUES (30, 'example.org');"
      "INSERT INTO domains VALUES (12, 'example.org', 64, 7, 40, 30);"
      "INSERT INTO Limits VALUES (40, 'mbox_quota', '104857600'), (41, 'mbox_quota', '1');"
      "INSERT INTO dom_param VALUES (12, 'seo_redirect', 'www'), (13, 'seo_redirect', 'x');"
      "INSERT INTO Parameters VALUES (50, 'catch_all', 'reject');"
      "INSERT INTO DomainServices (dom_id, type, parameters_id) VALUES (12, 'mail', 50);"
      "INSERT INTO hosting VALUES (12, 'true', 'false');"
      "INSERT INTO domainaliases (name, dom_id) VALUES ('example.net', 12);"
      "INSERT INTO misc VALUES ('admin_email', 'admin@host.example')");
  zanth::DbConnection conn = connect();
  MYSQL* db = conn.get();
  const size_t logged = server().adminLog().size();

  EXPECT_STREQ("104857600", db_get_dom_limit("12", "mbox_quota", db));
  EXPECT_STREQ("www", db_get_dom_param("12", "seo_redirect", db));
  EXPECT_STREQ("reject", db_get_dom_service_param("12", "mail", "catch_all", db));
  EXPECT_STREQ("owner@example.org", db_get_owner_email("12", db));
  unsigned int status = 0;
  EXPECT_EQ(0, db_get_domain_status("12", &status, db));
  EXPECT_EQ(64u, status);
  int fp = -1, fp_ssl = -1;
  EXPECT_EQ(0, db_get_frontpage_flags("example.org", &fp, &fp_ssl, db));
  EXPECT_EQ(1, fp);
  EXPECT_EQ(0, fp_ssl);
  EXPECT_EQ(12, db_get_dom_id_by_alias("example.net", db));
  EXPECT_EQ(0, db_get_dom_id_by_alias("example.com", db));
  EXPECT_EQ(7, db_get_client_id("12", db));
  EXPECT_EQ(30, db_get_dns_zone_id("12", db));
  EXPECT_EQ(12, db_get_max_id("domains", db));
  EXPECT_EQ(0, db_get_max_id("subdomains", db));
  EXPECT_EQ(1, db_domain_exists("example.org", db));
  EXPECT_EQ(0, db_domain_exists("example.com", db));
  // Found only under its ASCII name.
  server().exec("INSERT INTO orb.domains (id, name) VALUES (5, 'xn--bcher-kva.example')");
  EXPECT_EQ(5, db_get_dom_id("bücher.example", db));

  // www: a subdomain of that name, or an A or CNAME record (an MX is not).
  server().exec("INSERT INTO orb.subdomains (dom_id, name) VALUES (12, 'www')");
  EXPECT_EQ(1, db_has_www_prefix("12", db));
  server().exec(
      "DELETE FROM orb.subdomains;"
      "INSERT INTO orb.dns_recs (dns_zone_id, type) VALUES (30, 'MX')");
  EXPECT_EQ(0, db_has_www_prefix("12", db));
  server().exec("INSERT INTO orb.dns_recs (dns_zone_id, type) VALUES (30, 'CNAME')");
  EXPECT_EQ(1, db_has_www_prefix("12", db));

  // The client's address missing: the administrator's.
  server().exec("UPDATE orb.clients SET email=NULL");
  EXPECT_STREQ("admin@host.example", db_get_owner_email("12", db));

  // Every query went over the given connection, which stays open.
  const std::vector<LoggedCommand> log = server().adminLog();
  for (size_t i = logged; i < log.size(); ++i)
    EXPECT_EQ(static_cast<long long>(mysql_thread_id(db)), log[i].thread) << log[i].argument;
  EXPECT_EQ(0, mysql_ping(db));

  // Given none, a query opens a connection of its own and closes it.
  EXPECT_STREQ("104857600", db_get_dom_limit("12", "mbox_quota", nullptr));
  const LoggedCommand own = server().adminLog().at(log.size());
  EXPECT_EQ("Connect", own.command);
  EXPECT_EQ(
      "select l.value from domains d, Limits l \t\t\t\t where d.id='12' and d.limits_id=l.id  "
      "and l.limit_name='mbox_quota'",
      server().adminQueries().back());
  EXPECT_TRUE(server().waitForQuit(own.thread));
}

TEST_F(ProductDb, MissingRowsAndFailuresAreReported) {
  server().exec(
      "INSERT INTO orb.domains (id, name, status) VALUES (3, 'a.example', -1);"
      "DROP TABLE orb.Limits; DROP TABLE orb.subdomains");
  const std::string longAlias(5000, 'a');
  expectReported({
      {[] { return db_get_dom_limit("3", "mbox_quota", nullptr) == nullptr; },
       "Unable to query domain limit mbox_quota: Table 'orb.Limits' doesn't exist"},
      {[] { return db_has_www_prefix("3", nullptr) == -1; },
       "Unable to query www subdomain: Table 'orb.subdomains' doesn't exist"},
      {[] { return db_get_dom_param("3", "p", nullptr) == nullptr; },
       "Unable to query domain parameter p: "},
      {[] { return db_misc_param("none", nullptr) == nullptr; },
       "Unable to query parameter by query select val from misc where param='none': "},
      {[] { return statusFails("9"); },
       "Unable to get status for domain with id=\"9\": such domain is not exist."},
      {[] { return statusFails("3"); },
       "Unable to get status for domain with id=\"3\": error translate status value from char "
       "to unsigned int."},
      {[] { return db_get_dom_id("b.example", nullptr) == 0; },
       "get_dom_id(): domains record not found in DB for 'b.example'"},
      {[] { return db_get_dom_id("a..b", nullptr) == -1; }, "idn_toascii() failed: Invalid length"},
      {[] { return db_get_client_id("3", nullptr) == 0; }, "Unable to define client's ID: "},
      {[] { return db_get_owner_email("3", nullptr) == nullptr; }, "Unable to define admin email"},
      {[] {
         int fp, fp_ssl;
         return db_get_frontpage_flags("a.example", &fp, &fp_ssl, nullptr) == -1;
       },
       "Unable to query frontpage status: "},
      {[&] { return db_get_dom_id_by_alias(longAlias.c_str(), nullptr) == -1; },
       "domain alias '" + longAlias + "' is too long"},
      {[] { return db_get_max_id("no_such_table", nullptr) == -1; },
       "Unable to define max id: Table 'orb.no_such_table' doesn't exist"},
  });
}

TEST_F(ProductDb, EachCallOverwritesTheSharedBuffer) {
  server().exec(
      "INSERT INTO orb.misc VALUES ('first', 'one'), ('second', 'two'), "
      "('two', 'chained')");
  zanth::DbConnection conn = connect();
  const char* first = db_misc_param("first", conn.get());
  ASSERT_STREQ("one", first);
  EXPECT_EQ(first, db_misc_param("second", conn.get()));
  EXPECT_STREQ("two", first);
  // A value from the buffer can be passed straight to the next query.
  EXPECT_STREQ("chained", db_misc_param(first, conn.get()));

  // Failure leaves it empty.
  RunResult missing = runInChild([&] {
    db_misc_param("first", conn.get());
    return db_misc_param("absent", conn.get()) == nullptr && first[0] == '\0' ? 0 : 1;
  });
  EXPECT_EQ(0, missing.exitCode());
}

}  // namespace
}  // namespace testing_support
