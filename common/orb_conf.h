// Product configuration: the installation layout read from
// "/etc/orb/orb.conf" (lines of a name, white space and a value) into a
// sorted name/value table, with compile-time defaults for the known
// variables. Procedural: 0 / -1 or value / null; problems with the file are
// logged through mail_log at priority 12 and never end the process.
#ifndef MXKEEP_COMMON_ORB_CONF_H
#define MXKEEP_COMMON_ORB_CONF_H

#include <cstdio>

#include "common/fixed_paths.h"

// Indexes of the compile-time variables. The two ends are range sentinels.
enum orb_conf_var {
  ORB_CONF_MIN_VAR = 0,
  ZANTH_MAILNAMES_D = 1,
  COURIER_IMAP_ROOT_D,
  RBLSMTPD,
  CGI_PHP_BIN,
  CLIENT_PHP_BIN,
  LIB_CRYPTO_PATH,
  LIB_SSL_PATH,
  AWSTATS_DOC_D,
  AWSTATS_TOOLS_D,
  AWSTATS_BIN_D,
  AWSTATS_ETC_D,
  CATALINA_HOME,
  MAILMAN_VAR_D,
  MAILMAN_ROOT_D,
  PGSQL_DATA_D,
  PGSQL_BIN_D,
  MYSQL_BIN_D,
  MYSQL_VAR_D,
  LOGROTATE,
  WEB_STAT,
  DUMP_D,
  DUMP_TMP_D,
  NAMED_RUN_ROOT_D,
  FTPD_CONF_INC,
  HTTPD_SERVICE,
  HTTPD_LOG_D,
  HTTPD_INCLUDE_D,
  HTTPD_CONF_D,
  HTTPD_VHOSTS_D,
  PRODUCT_ROOT_D = 30,
  ORB_CONF_MAX_VAR = 31
};

// The runtime configuration file.
constexpr const char* kOrbConfPath = zanth::paths::kOrbConfPath;

// One name/value pair; both strings belong to the table.
struct conf_pair {
  char* name;
  char* value;
};

// A parsed configuration file: pairs ordered by name (strcmp) while sorted
// is 1. Make one with conf_new, release it with conf_free.
struct conf_table {
  conf_pair* pairs;
  unsigned capacity;
  unsigned count;
  int sorted;
};

// conf_new - an empty table; null when out of memory.
conf_table* conf_new();

// conf_read - add every definition of the file at path; 0 or -1 (errno
// kept from the failing call). Malformed lines are logged and skipped.
int conf_read(const char* path, conf_table* table);

// conf_read_stream - as conf_read for a file already open for reading; the
// caller keeps and closes it.
int conf_read_stream(FILE* file, conf_table* table);

// conf_add - insert a copy of name and value, or replace the value of an
// existing name; 0 or -1 with errno ENOMEM.
int conf_add(const char* name, const char* value, conf_table* table);

// conf_get - the value of name, owned by the table, or null.
const char* conf_get(const char* name, conf_table* table);

// conf_sort - order the pairs by name unless they already are.
void conf_sort(conf_table* table);

// conf_free - release every pair, the array and the table; null is fine.
void conf_free(conf_table* table);

// orb_conf_load - read the configuration file once per process; 0 when it
// is loaded, -1 when it cannot be read (a later call tries again).
int orb_conf_load();

// orb_conf_get - the file's value of a variable index, or null.
const char* orb_conf_get(int index);

// orb_conf_get_default - the file's value, else the compile-time default;
// null only for an index outside the table.
const char* orb_conf_get_default(int index);

// orb_conf_get_by_name - as orb_conf_get_default for a compile-time
// variable named name; for other names reports that it is unknown and
// gives null, even when the file defines it.
const char* orb_conf_get_by_name(const char* name);

// orb_conf_get_any - the file's value of any name, or null.
const char* orb_conf_get_any(const char* name);

// orb_conf_unload - forget the loaded file and every cached value, so the
// next lookup reads the file again (for tests and long-lived callers).
void orb_conf_unload();

#endif  // MXKEEP_COMMON_ORB_CONF_H
