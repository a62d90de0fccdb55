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

constexpr char kSocketError[] =
    "Can't connect to local server through socket '/run/mysqld/mysqld.sock' (2)";

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// What a call printed: its first line, the same on both streams.
struct Reported {
  int result;
  std::string line;
};

// Runs call in a child (query functions print through report_error) and
// gives its small result and its message; the two streams must agree.
Reported runReported(const std::function<int()>& call) {
  RunResult r = runInChild(call);
  EXPECT_EQ(r.out, r.err);
  return {r.exitCode(), firstLine(r.out)};
}

class ProductDb : public ProductDbTest {
 protected:
  // A domain with everything the lookups read.
  void addExampleDomain() {
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
  }
};

TEST_F(ProductDb, ConnectsAsAdminWithThePasswordLine) {
  for (const std::string& file : {std::string(kDbAdminPassword) + "\n",
                                  std::string(kDbAdminPassword)}) {
    writeFile("/etc/orb/.orb.shadow", file, 0600);
    char err[256] = "";
    zanth::DbConnection conn(db_connect(err, sizeof err));
    EXPECT_NE(nullptr, conn.get()) << "file " << file << ": " << err;
  }
  std::vector<std::string> connects;
  for (const LoggedCommand& c : server().adminLog())
    if (c.command == "Connect") connects.push_back(c.argument);
  EXPECT_EQ(std::vector<std::string>(2, "admin@localhost on orb using Socket"), connects);

  char buf[kDbAdminPasswordSize], err[256];
  writeFile("/etc/orb/.orb.shadow", "first\n\nsecond\n", 0600);
  ASSERT_EQ(0, db_read_admin_password(buf, sizeof buf, err, sizeof err));
  EXPECT_STREQ("first", buf);
}

TEST_F(ProductDb, ConnectFailuresFillTheErrorBuffer) {
  struct Case {
    std::function<void()> cause;
    std::string message;
  } cases[] = {
      {[] { unlink("/etc/orb/.orb.shadow"); },
       "Unable to open admin password file: No such file or directory"},
      {[] { writeFile("/etc/orb/.orb.shadow", "wrong\n", 0600); },
       "Unable to connect to Zanth Database: Access denied for user 'admin'@'localhost' "
       "(using password: YES)"},
      {[] {
         writeFile("/etc/orb/.orb.shadow", std::string(kDbAdminPassword) + "\n", 0600);
         server().exec("DROP TABLE orb.misc");
       },
       "DB error (mysql41 compatible query) 1146: Table 'orb.misc' doesn't exist"},
      {[] {
         unlink("/etc/orb/.orb.shadow");
         mkdir("/etc/orb/.orb.shadow", 0700);
       },
       "Unable to read admin password file: Is a directory"},
  };
  for (const Case& c : cases) {
    c.cause();
    char err[256] = "";
    EXPECT_EQ(nullptr, db_connect_setup(err, sizeof err));
    EXPECT_EQ(c.message, err);
  }
}

TEST_F(ProductDb, SetNamesFollowsTheMysql41Parameter) {
  const std::string kProbe = "SELECT val FROM misc WHERE param='mysql41_compatible'";
  struct Case {
    const char* row;  // the misc row's value, or null for no row
    const char* names;
    int flag;
  } cases[] = {
      {"'true'", "SET NAMES utf8", 1},  {nullptr, "SET NAMES binary", 0},
      {"'yes'", "SET NAMES utf8", 1},   {"'false'", "SET NAMES binary", 0},
      {"''", "SET NAMES binary", 0},    {"NULL", "SET NAMES binary", 0},
  };
  for (const Case& c : cases) {
    server().resetForTest();
    if (c.row != nullptr)
      server().exec(std::string("INSERT INTO orb.misc VALUES ('mysql41_compatible', ") + c.row +
                    ")");
    char err[256] = "";
    zanth::DbConnection conn(db_connect_setup(err, sizeof err));
    ASSERT_NE(nullptr, conn.get()) << err;
    EXPECT_EQ(c.flag, db_mysql41_compatible()) << "value " << (c.row ? c.row : "absent");
    std::vector<std::string> expected = {"set foreign_key_checks=0",
                                         "SHOW VARIABLES LIKE 'version'", kProbe, c.names};
    EXPECT_EQ(expected, server().adminQueries()) << "value " << (c.row ? c.row : "absent");
  }
}

TEST(ProductDbVersion, OnlyServersBefore41GetNoSetNames) {
  struct Case {
    const char* version;
    int old;
  } cases[] = {
      {"3.23.58", 1},   {"4.0.27-log", 1}, {"4.0.", 1},  {"4.1.22", 0},
      {"4.10.1", 0},    {"5.0.95", 0},     {"10.11.19-MariaDB", 0},
      {"3", 0},         {"4.0", 0},        {"", 0},
  };
  for (const Case& c : cases)
    EXPECT_EQ(c.old, db_version_predates_41(c.version)) << "version " << c.version;
}

TEST_F(ProductDb, LookupsReadRealRows) {
  addExampleDomain();
  char err[256];
  zanth::DbConnection conn(db_connect_setup(err, sizeof err));
  ASSERT_NE(nullptr, conn.get()) << err;
  MYSQL* db = conn.get();

  EXPECT_STREQ("104857600", db_get_dom_limit("12", "mbox_quota", db));
  EXPECT_STREQ("www", db_get_dom_param("12", "seo_redirect", db));
  EXPECT_STREQ("reject", db_get_dom_service_param("12", "mail", "catch_all", db));
  EXPECT_STREQ("owner@example.org", db_get_owner_email("12", db));
  EXPECT_STREQ("admin@host.example", db_misc_param("admin_email", db));
  EXPECT_STREQ("example.org", db_select_value("30", "dns_zone", "id", "name", db));
  EXPECT_STREQ("7", db_query_value("SELECT cl_id FROM domains", db));
  unsigned int status = 0;
  EXPECT_EQ(0, db_get_domain_status("12", &status, db));
  EXPECT_EQ(64u, status);
  int fp = -1, fp_ssl = -1;
  EXPECT_EQ(0, db_get_frontpage_flags("example.org", &fp, &fp_ssl, db));
  EXPECT_EQ(1, fp);
  EXPECT_EQ(0, fp_ssl);
  EXPECT_EQ(12, db_get_dom_id("example.org", db));
  EXPECT_EQ(12, db_get_dom_id_by_alias("example.net", db));
  EXPECT_EQ(0, db_get_dom_id_by_alias("example.com", db));
  EXPECT_EQ(7, db_get_client_id("12", db));
  EXPECT_EQ(30, db_get_dns_zone_id("12", db));
  EXPECT_EQ(12, db_get_max_id("domains", db));
  EXPECT_EQ(0, db_get_max_id("subdomains", db));
  EXPECT_EQ(1, db_domain_exists("example.org", db));
  EXPECT_EQ(0, db_domain_exists("example.com", db));

  // www: no A or CNAME record and no subdomain; then each on its own.
  EXPECT_EQ(0, db_has_www_prefix("12", db));
  server().exec("INSERT INTO orb.subdomains (dom_id, name) VALUES (12, 'www')");
  EXPECT_EQ(1, db_has_www_prefix("12", db));
  server().exec("DELETE FROM orb.subdomains;"
                "INSERT INTO orb.dns_recs (dns_zone_id, type) VALUES (30, 'MX')");
  EXPECT_EQ(0, db_has_www_prefix("12", db));
  server().exec("INSERT INTO orb.dns_recs (dns_zone_id, type) VALUES (30, 'CNAME')");
  EXPECT_EQ(1, db_has_www_prefix("12", db));

  // The client's address missing: the administrator's.
  server().exec("UPDATE orb.clients SET email=NULL");
  EXPECT_STREQ("admin@host.example", db_get_owner_email("12", db));

  EXPECT_EQ(0, mysql_ping(db)) << "a given connection stays open";
}

TEST_F(ProductDb, DomainIdLookupConvertsTheNameToAscii) {
  server().exec("INSERT INTO orb.domains (id, name) VALUES (5, 'xn--bcher-kva.example')");
  EXPECT_EQ(5, db_get_dom_id("b\xc3\xbc" "cher.example", nullptr));
  std::vector<std::string> queries = server().adminQueries();
  ASSERT_FALSE(queries.empty());
  EXPECT_EQ("select id from domains where name='xn--bcher-kva.example'", queries.back());

  Reported bad = runReported([] { return db_get_dom_id("a..b", nullptr) == -1 ? 0 : 1; });
  EXPECT_EQ(0, bad.result);
  EXPECT_EQ("idn_toascii() failed: Invalid length", bad.line);
}

TEST_F(ProductDb, MissingRowsAndFailuresAreReported) {
  server().exec("INSERT INTO orb.domains (id, name, status) VALUES (3, 'a.example', -1)");
  struct Case {
    std::function<int()> call;  // 0 when the function gave its failure value
    std::string line;
  } cases[] = {
      {[] { return db_get_dom_limit("3", "mbox_quota", nullptr) == nullptr ? 0 : 1; },
       "Unable to query domain limit mbox_quota: "},
      {[] { return db_get_dom_param("3", "p", nullptr) == nullptr ? 0 : 1; },
       "Unable to query domain parameter p: "},
      {[] { return db_misc_param("none", nullptr) == nullptr ? 0 : 1; },
       "Unable to query parameter by query select val from misc where param='none': "},
      {[] {
         unsigned int status;
         return db_get_domain_status("9", &status, nullptr) == -1 ? 0 : 1;
       },
       "Unable to get status for domain with id=\"9\": such domain is not exist."},
      {[] {
         unsigned int status;
         return db_get_domain_status("3", &status, nullptr) == -1 ? 0 : 1;
       },
       "Unable to get status for domain with id=\"3\": error translate status value from char "
       "to unsigned int."},
      {[] { return db_get_dom_id("b.example", nullptr) == 0 ? 0 : 1; },
       "get_dom_id(): domains record not found in DB for 'b.example'"},
      {[] { return db_get_client_id("3", nullptr) == 0 ? 0 : 1; },
       "Unable to define client's ID: "},
      {[] { return db_get_owner_email("3", nullptr) == nullptr ? 0 : 1; },
       "Unable to define admin email"},
      {[] {
         int fp, fp_ssl;
         return db_get_frontpage_flags("a.example", &fp, &fp_ssl, nullptr) == -1 ? 0 : 1;
       },
       "Unable to query frontpage status: "},
      {[] { return db_get_dom_id_by_alias(std::string(5000, 'a').c_str(), nullptr) == -1 ? 0 : 1; },
       "domain alias '" + std::string(5000, 'a') + "' is too long"},
      {[] { return db_get_max_id("no_such_table", nullptr) == -1 ? 0 : 1; },
       "Unable to define max id: Table 'orb.no_such_table' doesn't exist"},
  };
  for (const Case& c : cases) {
    Reported r = runReported(c.call);
    EXPECT_EQ(0, r.result) << c.line;
    EXPECT_EQ(c.line, r.line);
  }
}

TEST_F(ProductDb, MissingTableIsReportedWithTheServerText) {
  addExampleDomain();
  server().exec("DROP TABLE orb.Limits; DROP TABLE orb.subdomains");
  Reported limit =
      runReported([] { return db_get_dom_limit("12", "mbox_quota", nullptr) ? 1 : 0; });
  EXPECT_EQ(0, limit.result);
  EXPECT_EQ("Unable to query domain limit mbox_quota: Table 'orb.Limits' doesn't exist",
            limit.line);
  Reported www = runReported([] { return db_has_www_prefix("12", nullptr) == -1 ? 0 : 1; });
  EXPECT_EQ(0, www.result);
  EXPECT_EQ("Unable to query www subdomain: Table 'orb.subdomains' doesn't exist", www.line);
}

TEST_F(ProductDb, QueryWithoutConnectionOpensAndClosesItsOwn) {
  addExampleDomain();
  EXPECT_STREQ("104857600", db_get_dom_limit("12", "mbox_quota", nullptr));
  std::vector<LoggedCommand> log = server().adminLog();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ("Connect", log.front().command);
  EXPECT_EQ(
      "select l.value from domains d, Limits l \t\t\t\t where d.id='12' and d.limits_id=l.id  "
      "and l.limit_name='mbox_quota'",
      server().adminQueries().back());
  EXPECT_TRUE(server().waitForQuit(log.front().thread));

  // A given connection: no connection of its own, and none closed.
  char err[256];
  zanth::DbConnection conn(db_connect_setup(err, sizeof err));
  ASSERT_NE(nullptr, conn.get()) << err;
  size_t before = server().adminLog().size();
  EXPECT_STREQ("www", db_get_dom_param("12", "seo_redirect", conn.get()));
  log = server().adminLog();
  ASSERT_EQ(before + 1, log.size());
  EXPECT_EQ("Query", log.back().command);
  EXPECT_EQ(static_cast<long long>(mysql_thread_id(conn.get())), log.back().thread);
}

TEST_F(ProductDb, EachCallOverwritesTheSharedBuffer) {
  server().exec("INSERT INTO orb.misc VALUES ('first', 'one'), ('second', 'two')");
  char err[256];
  zanth::DbConnection conn(db_connect_setup(err, sizeof err));
  ASSERT_NE(nullptr, conn.get()) << err;
  const char* first = db_misc_param("first", conn.get());
  ASSERT_STREQ("one", first);
  const char* second = db_misc_param("second", conn.get());
  EXPECT_EQ(first, second);
  EXPECT_STREQ("two", first);

  // A value from the buffer can be passed straight to the next query.
  server().exec("INSERT INTO orb.misc VALUES ('two', 'chained')");
  EXPECT_STREQ("chained", db_misc_param(db_misc_param("second", conn.get()), conn.get()));

  // Failure leaves it empty.
  Reported missing = runReported([&] {
    db_misc_param("first", conn.get());
    return db_misc_param("absent", conn.get()) == nullptr && first[0] == '\0' ? 0 : 1;
  });
  EXPECT_EQ(0, missing.result);
}

TEST_F(ProductDb, StoppedServerIsReported) {
  struct Restart {
    ~Restart() { MariaDbServer::instance().start(); }
  } restart;
  server().stop();

  char err[256] = "";
  EXPECT_EQ(nullptr, db_connect(err, sizeof err));
  EXPECT_EQ(std::string("Unable to connect to Zanth Database: ") + kSocketError, err);
  Reported query = runReported([] { return db_get_client_id("1", nullptr) == -1 ? 0 : 1; });
  EXPECT_EQ(0, query.result);
  EXPECT_EQ("Unable to connect to the mysql database", query.line);
  Reported alias =
      runReported([] { return db_get_dom_id_by_alias("x.example", nullptr) == -1 ? 0 : 1; });
  EXPECT_EQ("get_do_id_by_alias: Unable to connect to the mysql database", alias.line);
  Reported param = runReported([] { return db_get_dom_param("1", "p", nullptr) ? 1 : 0; });
  EXPECT_EQ("Unable to connect to mysql database", param.line);
}

}  // namespace
}  // namespace testing_support
