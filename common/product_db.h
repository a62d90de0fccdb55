// Product database access: connects to the control panel's MySQL database
// "orb" as its administrator, matches the connection's character set to the
// server's generation, and offers small queries that each return one value.
// Connection steps write their message into the caller's buffer; queries
// report through report_error (status 0) and return a failure value.
// Kept for the control panel: neither command reaches it.
#ifndef MXKEEP_COMMON_PRODUCT_DB_H
#define MXKEEP_COMMON_PRODUCT_DB_H

#include <mysql.h>

#include <cstddef>

#include "common/fixed_paths.h"
#include "common/syscall.h"

// The administrator's password is the first line of this root-only file.
constexpr const char* kDbAdminPasswordFile = zanth::paths::kDbAdminPasswordFile;
// Room for the password line: at most 99 characters are used.
constexpr size_t kDbAdminPasswordSize = 100;
// Size of the shared query buffer (SQL text in, value out).
constexpr size_t kDbQueryBufferSize = 4096;

// --- Connection ------------------------------------------------------------
//
// Each writes its failure message into err (snprintf to err_size bytes) and
// prints nothing. A returned handle belongs to the caller (mysql_close, or a
// zanth::DbConnection owner).

// db_read_admin_password - first line of the password file without its one
// trailing newline, into buf (fgets, size bytes). 0 / -1.
int db_read_admin_password(char* buf, size_t size, char* err, size_t err_size);

// db_connect - a connection as "admin" to "orb" on "localhost" (the client
// library's default socket), or null. When the handle cannot even be
// allocated errno is ENOMEM.
MYSQL* db_connect(char* err, size_t err_size);

// db_connect_checked - as db_connect; null also when mysql_errno reports an
// error on the new connection.
MYSQL* db_connect_checked(char* err, size_t err_size);

// db_connect_setup - as db_connect_checked, then "set foreign_key_checks=0"
// (its result ignored) and db_set_names. The handle is returned only when
// mysql_errno is 0 afterwards; otherwise it is closed and null returned.
MYSQL* db_connect_setup(char* err, size_t err_size);

// db_set_names - sets the compatibility flag from the server version and
// the misc parameter "mysql41_compatible", and sends "SET NAMES utf8" or
// "SET NAMES binary" accordingly (nothing to a server older than 4.1).
// 0 / -1.
int db_set_names(MYSQL* conn, char* err, size_t err_size);

// db_mysql41_compatible - 1 when the last db_set_names found the data in the
// 4.1 character-set form (and sent "SET NAMES utf8"), else 0.
int db_mysql41_compatible();

// db_version_predates_41 - 1 when a server reporting this version string
// ("3.x" or "4.0.x") knows no character sets per connection, else 0.
int db_version_predates_41(const char* version);

// --- Queries ---------------------------------------------------------------
//
// Every query takes a connection or null. Given a connection, it is used and
// left open; given null, the query opens its own with db_connect_setup and
// closes it before returning (a failure to connect is reported).
//
// Values are put into the SQL text unchanged between quotes, without
// escaping: pass only domain names, ids and fixed parameter names.
//
// The functions returning const char* return the one shared static buffer
// of kDbQueryBufferSize bytes (the first column of the first row, at most
// 4095 characters), or null. The text is valid only until the next call of
// any function of this group: copy it before making another query. After
// a failure the buffer holds the empty string.

// db_select_value - "select RESULT from TABLE where KEY='VALUE'"; null when
// there is no row, the value is NULL, or the query fails (reported).
const char* db_select_value(const char* value, const char* table,
                            const char* key_column, const char* result_column,
                            MYSQL* conn);

// db_misc_param - the "val" of the misc row whose "param" is name, or null.
const char* db_misc_param(const char* name, MYSQL* conn);

// db_query_value - first value of the caller's own SQL, or null.
const char* db_query_value(const char* sql, MYSQL* conn);

// db_get_dom_param - the domain parameter (dom_param) of a domain id, or null.
const char* db_get_dom_param(const char* dom_id, const char* param, MYSQL* conn);

// db_get_dom_service_param - the parameter of one service type of a domain
// (DomainServices, Parameters), or null.
const char* db_get_dom_service_param(const char* dom_id, const char* type,
                                     const char* param, MYSQL* conn);

// db_get_dom_limit - the value of a domain's limit by name (for example
// "mbox_quota"), as text, or null when the domain has no such limit or the
// query fails (both reported).
const char* db_get_dom_limit(const char* dom_id, const char* limit_name, MYSQL* conn);

// db_get_owner_email - the e-mail address of the client owning a domain;
// falls back to the misc parameter "admin_email". Null when neither is
// known (reported).
const char* db_get_owner_email(const char* dom_id, MYSQL* conn);

// db_get_domain_status - the status of the domain with this id, stored in
// *status. 0, or -1 when the domain does not exist, its status is not an
// unsigned number, or the query fails (each reported with its own text).
int db_get_domain_status(const char* dom_id, unsigned int* status, MYSQL* conn);

// db_get_frontpage_flags - whether web publishing (column "fp") and web
// publishing over SSL ("fp_ssl") are on for the domain with this name: 1
// for the value "true", 0 for anything else. 0, or -1 when the domain has no
// hosting or the query fails (reported); the flags are then left alone.
int db_get_frontpage_flags(const char* dom_name, int* fp, int* fp_ssl, MYSQL* conn);

// The numeric lookups below return a row id: above 0 when found, 0 when
// there is no such row (said below whether that is reported), -1 when the
// query fails or no connection can be made (reported).

// db_get_dom_id - id of the domain with this name, converted to ASCII first;
// a missing domain is reported.
long long db_get_dom_id(const char* name, MYSQL* conn);

// db_get_dom_id_by_alias - id of the domain owning this domain alias; an
// unknown alias gives 0 unreported.
long long db_get_dom_id_by_alias(const char* alias, MYSQL* conn);

// db_get_client_id - id of the client owning the domain with this id; a
// missing domain or client is reported.
long long db_get_client_id(const char* dom_id, MYSQL* conn);

// db_get_dns_zone_id - id of the DNS zone of the domain with this id; a
// missing domain or zone is reported.
long long db_get_dns_zone_id(const char* dom_id, MYSQL* conn);

// db_get_max_id - the largest id of a table; 0 for an empty table.
long long db_get_max_id(const char* table, MYSQL* conn);

// The checks below return 1 (yes), 0 (no, unreported) or -1 (the query
// fails or no connection can be made; reported).

// db_domain_exists - whether a domain of exactly this name exists.
int db_domain_exists(const char* name, MYSQL* conn);

// db_has_www_prefix - whether the domain with this id answers with a "www."
// prefix: its DNS zone has an A or CNAME record, or it has a subdomain
// named "www".
int db_has_www_prefix(const char* dom_id, MYSQL* conn);

namespace zanth {

// Owns a connection handle; mysql_close on destruction.
//
//   char err[256];
//   DbConnection db(db_connect_setup(err, sizeof err));
//   if (db.get() == nullptr) { ... report err ... }
//   const char* quota = db_get_dom_limit(id, "mbox_quota", db.get());
using DbConnection = UniqueHandle<MYSQL, mysql_close>;

// Owns a stored result set; mysql_free_result on destruction.
using DbResult = UniqueHandle<MYSQL_RES, mysql_free_result>;

}  // namespace zanth

#endif  // MXKEEP_COMMON_PRODUCT_DB_H
