// Product database access on the MySQL C API: the admin password file, the
// connection and its character-set setup, and the single-value queries over
// one shared 4096-byte buffer. Connection steps fill the caller's error
// buffer; queries report once through report_error and never end the process.
#include "common/product_db.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/errors.h"
#include "common/idn.h"
#include "common/syscall.h"

namespace {

constexpr char kHost[] = "localhost";
constexpr char kUser[] = "admin";
constexpr char kDatabase[] = "orb";
constexpr size_t kConnectErrorSize = 1024;

// Stands in for the server's text when the SQL did not fit the buffer.
constexpr char kQueryTooLong[] = "query is too long";

constexpr char kConnectFailure[] = "Unable to connect to the mysql database\n";

char g_query[kDbQueryBufferSize];
int g_mysql41_compatible = 0;

// Writes a connection-level message into the caller's buffer.
void set_error(char* err, size_t err_size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

void set_error(char* err, size_t err_size, const char* format, ...) {
  if (err == nullptr || err_size == 0) return;
  va_list args;
  va_start(args, format);
  std::vsnprintf(err, err_size, format, args);
  va_end(args);
}

// One failed step of db_set_names.
int set_names_failed(MYSQL* conn, const char* step, char* err, size_t err_size) {
  unsigned int code = mysql_errno(conn);
  if (code != 0)
    set_error(err, err_size, "DB error (%s) %u: %s", step, code, mysql_error(conn));
  else
    set_error(err, err_size, "DB error (%s): unknown error", step);
  return -1;
}

// What a single-value query found.
enum class Fetched {
  kValue,         // the first column of the first row is in g_query
  kNull,          // a first row came back, its first column NULL
  kNoRow,         // no row
  kFailed,        // the server refused the query: mysql_error says why
  kTooLong,       // the SQL did not fit the buffer; nothing was sent
  kNoConnection,  // no connection could be opened (already reported)
};

// One single-value query: runs SQL formatted into the shared buffer on the
// caller's connection or on one of its own, opened on the first run and
// closed when the query object goes away. Whatever is not a value leaves
// the buffer empty.
class SingleQuery final {
 public:
  SingleQuery(MYSQL* given, const char* connect_failure)
      : conn_(given), connect_failure_(connect_failure) {}
  SingleQuery(const SingleQuery&) = delete;
  SingleQuery& operator=(const SingleQuery&) = delete;

  Fetched run(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // The reason of the last failure: the server's text, or kQueryTooLong.
  const char* error() const {
    if (last_ == Fetched::kTooLong) return kQueryTooLong;
    return conn_ != nullptr ? mysql_error(conn_) : "";
  }

 private:
  Fetched fetch();

  MYSQL* conn_;
  zanth::DbConnection own_;
  const char* const connect_failure_;
  Fetched last_ = Fetched::kFailed;
};

Fetched SingleQuery::run(const char* format, ...) {
  if (conn_ == nullptr) {
    char err[kConnectErrorSize];
    own_.reset(db_connect_setup(err, sizeof err));
    conn_ = own_.get();
    if (conn_ == nullptr) {
      g_query[0] = '\0';
      report_error(kReportAndGoOn, kReportFlag, "%s", connect_failure_);
      return last_ = Fetched::kNoConnection;
    }
  }

  // Formatted aside first: an argument may still point into g_query.
  char sql[kDbQueryBufferSize];
  va_list args;
  va_start(args, format);
  int n = std::vsnprintf(sql, sizeof sql, format, args);
  va_end(args);
  g_query[0] = '\0';
  if (n < 0 || static_cast<size_t>(n) >= sizeof sql) return last_ = Fetched::kTooLong;
  std::memcpy(g_query, sql, n + 1);
  last_ = fetch();
  if (last_ != Fetched::kValue) g_query[0] = '\0';
  return last_;
}

Fetched SingleQuery::fetch() {
  if (mysql_real_query(conn_, g_query, std::strlen(g_query)) != 0) return Fetched::kFailed;
  zanth::DbResult res(mysql_store_result(conn_));
  if (res.get() == nullptr)
    return mysql_errno(conn_) != 0 ? Fetched::kFailed : Fetched::kNoRow;
  MYSQL_ROW row = mysql_fetch_row(res.get());
  if (row == nullptr) return mysql_errno(conn_) != 0 ? Fetched::kFailed : Fetched::kNoRow;
  if (mysql_num_fields(res.get()) == 0 || row[0] == nullptr) return Fetched::kNull;
  size_t length = mysql_fetch_lengths(res.get())[0];
  if (length > kDbQueryBufferSize - 1) length = kDbQueryBufferSize - 1;
  std::memcpy(g_query, row[0], length);
  g_query[length] = '\0';
  return Fetched::kValue;
}

// parse_id - a row id from the buffer: digits only, above 0; else -1.
long long parse_id(const char* text) {
  if (*text < '0' || *text > '9') return -1;
  errno = 0;
  char* end;
  long long id = std::strtoll(text, &end, 10);
  if (*end != '\0' || errno == ERANGE || id <= 0) return -1;
  return id;
}

// A query that found no value: no row, or a NULL in its place.
bool fetched_row_missing(Fetched f) { return f == Fetched::kNoRow || f == Fetched::kNull; }

}  // namespace


int db_read_admin_password(char* buf, size_t size, char* err, size_t err_size) {
  zanth::UniqueFile file(std::fopen(kDbAdminPasswordFile, "re"));
  if (file.get() == nullptr) {
    set_error(err, err_size, "Unable to open admin password file: %s", std::strerror(errno));
    return -1;
  }
  errno = 0;
  if (std::fgets(buf, static_cast<int>(size), file.get()) == nullptr) {
    set_error(err, err_size, "Unable to read admin password file: %s", std::strerror(errno));
    return -1;
  }
  size_t length = std::strlen(buf);
  if (length > 0 && buf[length - 1] == '\n') buf[length - 1] = '\0';
  return 0;
}

MYSQL* db_connect(char* err, size_t err_size) {
  char password[kDbAdminPasswordSize];
  if (db_read_admin_password(password, sizeof password, err, err_size) != 0) return nullptr;
  zanth::DbConnection conn(mysql_init(nullptr));
  if (conn.get() == nullptr) {
    explicit_bzero(password, sizeof password);
    set_error(err, err_size, "Unable to initialize MySQL connection structure: %s",
              std::strerror(ENOMEM));
    errno = ENOMEM;
    return nullptr;
  }
  MYSQL* connected =
      mysql_real_connect(conn.get(), kHost, kUser, password, kDatabase, 0, nullptr, 0);
  explicit_bzero(password, sizeof password);
  if (connected == nullptr) {
    set_error(err, err_size, "Unable to connect to Zanth Database: %s", mysql_error(conn.get()));
    return nullptr;
  }
  return conn.release();
}

MYSQL* db_connect_checked(char* err, size_t err_size) {
  zanth::DbConnection conn(db_connect(err, err_size));
  if (conn.get() == nullptr) return nullptr;
  if (mysql_errno(conn.get()) != 0) {
    set_error(err, err_size, "Unable to connect to Zanth Database: %s", mysql_error(conn.get()));
    return nullptr;
  }
  return conn.release();
}

MYSQL* db_connect_setup(char* err, size_t err_size) {
  zanth::DbConnection conn(db_connect_checked(err, err_size));
  if (conn.get() == nullptr) return nullptr;
  // Product tables are written in an order their keys do not know about.
  mysql_query(conn.get(), "set foreign_key_checks=0");
  if (db_set_names(conn.get(), err, err_size) != 0 || mysql_errno(conn.get()) != 0)
    return nullptr;
  return conn.release();
}

int db_version_predates_41(const char* version) {
  return std::strncmp(version, "3.", 2) == 0 || std::strncmp(version, "4.0.", 4) == 0;
}

int db_set_names(MYSQL* conn, char* err, size_t err_size) {
  if (mysql_query(conn, "SHOW VARIABLES LIKE 'version'") != 0)
    return set_names_failed(conn, "query version", err, err_size);
  zanth::DbResult version(mysql_store_result(conn));
  if (version.get() == nullptr) return set_names_failed(conn, "store query result", err, err_size);
  MYSQL_ROW row = mysql_fetch_row(version.get());
  if (row == nullptr) return set_names_failed(conn, "fetch version row", err, err_size);
  if (mysql_num_fields(version.get()) < 2 || row[1] == nullptr || row[1][0] == '\0')
    return set_names_failed(conn, "empty version result", err, err_size);
  // Servers before 4.1 have no connection character set to choose.
  if (db_version_predates_41(row[1])) {
    g_mysql41_compatible = 0;
    return 0;
  }
  version.reset();

  if (mysql_query(conn, "SELECT val FROM misc WHERE param='mysql41_compatible'") != 0)
    return set_names_failed(conn, "mysql41 compatible query", err, err_size);
  zanth::DbResult misc(mysql_store_result(conn));
  if (misc.get() == nullptr)
    return set_names_failed(conn, "mysql41 compatible query", err, err_size);
  row = mysql_fetch_row(misc.get());
  bool compatible = row != nullptr && row[0] != nullptr && row[0][0] != '\0' &&
                    std::strcmp(row[0], "false") != 0;
  misc.reset();

  // Data in the 4.1 form is UTF-8; older data is passed through as bytes.
  g_mysql41_compatible = compatible ? 1 : 0;
  if (mysql_query(conn, compatible ? "SET NAMES utf8" : "SET NAMES binary") != 0)
    return set_names_failed(conn, "set names query", err, err_size);
  return 0;
}

int db_mysql41_compatible() { return g_mysql41_compatible; }

const char* db_query_value(const char* sql, MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run("%s", sql);
  if (f == Fetched::kValue) return g_query;
  if (f != Fetched::kNoConnection)
    report_error(kReportAndGoOn, kReportFlag, "Unable to query parameter by query %s: %s\n", sql,
                 q.error());
  return nullptr;
}

const char* db_select_value(const char* value, const char* table, const char* key_column,
                            const char* result_column, MYSQL* conn) {
  char sql[kDbQueryBufferSize];
  if (!zanth::path_format(sql, sizeof sql, "select %s from %s where %s='%s'", result_column,
                          table, key_column, value)) {
    g_query[0] = '\0';
    report_error(kReportAndGoOn, kReportFlag, "Unable to query parameter by query %s: %s\n", sql,
                 kQueryTooLong);
    return nullptr;
  }
  return db_query_value(sql, conn);
}

const char* db_misc_param(const char* name, MYSQL* conn) {
  return db_select_value(name, "misc", "param", "val", conn);
}

const char* db_get_dom_param(const char* dom_id, const char* param, MYSQL* conn) {
  SingleQuery q(conn, "Unable to connect to mysql database\n");
  Fetched f = q.run("select val from dom_param where dom_id='%s' and param='%s'", dom_id, param);
  if (f == Fetched::kValue) return g_query;
  if (f != Fetched::kNoConnection)
    report_error(kReportAndGoOn, kReportFlag, "Unable to query domain parameter %s: %s\n", param,
                 q.error());
  return nullptr;
}

const char* db_get_dom_service_param(const char* dom_id, const char* type, const char* param,
                                     MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run(
      "select r.value from DomainServices s, Parameters r \t\t\t\t where s.dom_id='%s' and "
      "s.type='%s' and s.parameters_id=r.id  and r.parameter='%s'",
      dom_id, type, param);
  if (f == Fetched::kValue) return g_query;
  if (f != Fetched::kNoConnection)
    report_error(kReportAndGoOn, kReportFlag, "Unable to query domain parameter %s: %s\n", param,
                 q.error());
  return nullptr;
}

const char* db_get_dom_limit(const char* dom_id, const char* limit_name, MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run(
      "select l.value from domains d, Limits l \t\t\t\t where d.id='%s' and d.limits_id=l.id  "
      "and l.limit_name='%s'",
      dom_id, limit_name);
  if (f == Fetched::kValue) return g_query;
  if (f != Fetched::kNoConnection)
    report_error(kReportAndGoOn, kReportFlag, "Unable to query domain limit %s: %s\n", limit_name,
                 q.error());
  return nullptr;
}

const char* db_get_owner_email(const char* dom_id, MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run(
      "select c.email from domains d, clients c \t\t\t\t\t\t\t\t\twhere d.cl_id=c.id and "
      "d.id='%s'",
      dom_id);
  if (f == Fetched::kValue && g_query[0] != '\0') return g_query;
  if (f == Fetched::kNoConnection) return nullptr;
  if (f == Fetched::kFailed || f == Fetched::kTooLong) {
    report_error(kReportAndGoOn, kReportFlag, "Unable to define clients email: %s\n", q.error());
    return nullptr;
  }
  // A domain without a client's address is the administrator's.
  f = q.run("select val from misc where param='%s'", "admin_email");
  if (f == Fetched::kValue && g_query[0] != '\0') return g_query;
  if (f != Fetched::kNoConnection)
    report_error(kReportAndGoOn, kReportFlag, "Unable to define admin email\n");
  g_query[0] = '\0';
  return nullptr;
}

int db_get_domain_status(const char* dom_id, unsigned int* status, MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run("select status from domains where id=\"%s\"", dom_id);
  switch (f) {
    case Fetched::kNoConnection:
      return -1;
    case Fetched::kNoRow:
      report_error(kReportAndGoOn, kReportFlag,
                   "Unable to get status for domain with id=\"%s\": such domain is not exist.",
                   dom_id);
      return -1;
    case Fetched::kFailed:
    case Fetched::kTooLong:
      report_error(kReportAndGoOn, kReportFlag,
                   "Unable to get status for domain with id=\"%s\": %s", dom_id, q.error());
      return -1;
    case Fetched::kNull:
    case Fetched::kValue:
      break;
  }
  char* end = nullptr;
  errno = 0;
  unsigned long long value = 0;
  bool digits = f == Fetched::kValue && g_query[0] >= '0' && g_query[0] <= '9';
  if (digits) value = std::strtoull(g_query, &end, 10);
  if (!digits || *end != '\0' || errno == ERANGE || value > UINT_MAX) {
    report_error(kReportAndGoOn, kReportFlag,
                 "Unable to get status for domain with id=\"%s\": error translate status value "
                 "from char to unsigned int.",
                 dom_id);
    return -1;
  }
  *status = static_cast<unsigned int>(value);
  return 0;
}

int db_get_frontpage_flags(const char* dom_name, int* fp, int* fp_ssl, MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  int flags[2];
  const char* columns[2] = {"fp_ssl", "fp"};
  for (int i = 0; i < 2; ++i) {
    Fetched f = q.run(
        "select h.%s from domains d, hosting h \t\t\t\t\t\t\t\t\twhere d.name='%s' and "
        "h.dom_id=d.id",
        columns[i], dom_name);
    if (f == Fetched::kNoConnection) return -1;
    if (f != Fetched::kValue && f != Fetched::kNull) {
      report_error(kReportAndGoOn, kReportFlag, "Unable to query frontpage status: %s\n",
                   q.error());
      return -1;
    }
    flags[i] = std::strcmp(g_query, "true") == 0 ? 1 : 0;
  }
  *fp_ssl = flags[0];
  *fp = flags[1];
  return 0;
}

long long db_get_dom_id(const char* name, MYSQL* conn) {
  char* ascii = idn_toascii(name);
  if (ascii == nullptr) {
    report_error(kReportAndGoOn, kReportFlag, "idn_toascii() failed: %s",
                 idn_strerror(idn_last_error));
    return -1;
  }
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run("select id from domains where name='%s'", ascii);
  long long id = f == Fetched::kValue ? parse_id(g_query) : -1;
  if (fetched_row_missing(f)) {
    report_error(kReportAndGoOn, kReportFlag,
                 "get_dom_id(): domains record not found in DB for '%s'\n", ascii);
    id = 0;
  } else if (f != Fetched::kNoConnection && id < 0) {
    report_error(kReportAndGoOn, kReportFlag, "Unable to query domain ID: %s\n", q.error());
  }
  std::free(ascii);
  return id;
}

long long db_get_dom_id_by_alias(const char* alias, MYSQL* conn) {
  SingleQuery q(conn, "get_do_id_by_alias: Unable to connect to the mysql database");
  Fetched f = q.run("SELECT dom_id from domainaliases where name='%s'", alias);
  if (f == Fetched::kTooLong) {
    report_error(kReportAndGoOn, kReportFlag, "domain alias '%s' is too long\n", alias);
    return -1;
  }
  if (fetched_row_missing(f)) return 0;
  long long id = f == Fetched::kValue ? parse_id(g_query) : -1;
  if (f != Fetched::kNoConnection && id < 0)
    report_error(kReportAndGoOn, kReportFlag, "SQL query error: %s\n", q.error());
  return id;
}

long long db_get_client_id(const char* dom_id, MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run(
      "select c.id from domains d, clients c \t\t\t\t\t\t\t\t\twhere d.cl_id=c.id and "
      "d.id='%s'",
      dom_id);
  long long id = f == Fetched::kValue ? parse_id(g_query) : -1;
  if (fetched_row_missing(f)) id = 0;
  if (f != Fetched::kNoConnection && id <= 0)
    report_error(kReportAndGoOn, kReportFlag, "Unable to define client's ID: %s\n", q.error());
  return id;
}

long long db_get_dns_zone_id(const char* dom_id, MYSQL* conn) {
  SingleQuery q(conn, "get_ip_address: Unable to connect to the mysql database");
  Fetched f = q.run("select dns_zone_id from domains where id='%s'", dom_id);
  long long id = f == Fetched::kValue ? parse_id(g_query) : -1;
  if (fetched_row_missing(f)) id = 0;
  if (f != Fetched::kNoConnection && id <= 0)
    report_error(kReportAndGoOn, kReportFlag, "Unable to query dns_zone_id: %s\n", q.error());
  return id;
}

long long db_get_max_id(const char* table, MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run("SELECT max(id) FROM %s", table);
  if (f == Fetched::kNull) return 0;
  long long id = f == Fetched::kValue ? parse_id(g_query) : -1;
  if (f != Fetched::kNoConnection && id < 0)
    report_error(kReportAndGoOn, kReportFlag, "Unable to define max id: %s", q.error());
  return id;
}

int db_domain_exists(const char* name, MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run("select name from domains where name='%s'", name);
  if (f == Fetched::kNoConnection) return -1;
  if (f == Fetched::kFailed || f == Fetched::kTooLong) {
    report_error(kReportAndGoOn, kReportFlag, "Unable to query domain name: %s\n", q.error());
    return -1;
  }
  return f == Fetched::kNoRow ? 0 : 1;
}

int db_has_www_prefix(const char* dom_id, MYSQL* conn) {
  SingleQuery q(conn, kConnectFailure);
  Fetched f = q.run(
      "select * from domains d, dns_zone z, dns_recs r \t\twhere d.id='%s' and "
      "d.dns_zone_id=z.id and r.dns_zone_id=z.id \t\tand ((r.type='A') or (r.type='CNAME'))",
      dom_id);
  if (f == Fetched::kNoConnection) return -1;
  if (f == Fetched::kFailed || f == Fetched::kTooLong) {
    report_error(kReportAndGoOn, kReportFlag, "Unable to query www prefix: %s\n", q.error());
    return -1;
  }
  if (f != Fetched::kNoRow) return 1;
  f = q.run("select * from subdomains \t\t\twhere dom_id='%s' and name='www'", dom_id);
  if (f == Fetched::kFailed || f == Fetched::kTooLong) {
    report_error(kReportAndGoOn, kReportFlag, "Unable to query www subdomain: %s\n", q.error());
    return -1;
  }
  return f == Fetched::kNoRow ? 0 : 1;
}
