// Product configuration: the table parser and the process-wide runtime
// configuration with its per-index value cache. Nothing here throws; every
// log line goes through mail_log at priority 12 (LOG_USER | LOG_WARNING),
// above the default threshold, so a broken file stays quiet unless logging
// is turned up.
#include "common/orb_conf.h"

#include <search.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/chars.h"
#include "common/errors.h"
#include "common/mail_log.h"
#include "common/syscall.h"

namespace {

// A user-facility warning (12): numerically above the default threshold.
constexpr int kLogPriority = LOG_USER | LOG_WARNING;
constexpr unsigned kInitialCapacity = 20;
constexpr unsigned kCapacityStep = 20;
constexpr unsigned kDoublingLimit = 0x7fffffff;
constexpr unsigned kCapacityLimit = 0x1fffffff;
constexpr int kVarCount = ORB_CONF_MAX_VAR + 1;

struct CompiledVar {
  const char* name;
  const char* value;
};

const CompiledVar kCompiledVars[kVarCount] = {
    {"_MIN_POSSIBLE_ORB_CONF_VAR_NAME", "_MIN_POSSIBLE_ORB_CONF_VAR_VALUE"},
    {"ZANTH_MAILNAMES_D", zanth::paths::kMailNamesDir},
    {"COURIER_IMAP_ROOT_D", "/"},
    {"RBLSMTPD", "/usr/sbin/rblsmtpd"},
    {"CGI_PHP_BIN", "dynamic"},
    {"CLIENT_PHP_BIN", "/opt/orb/bin/php-cli"},
    {"LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
    {"LIB_SSL_PATH", "/lib/libssl.so"},
    {"AWSTATS_DOC_D", "/usr/share/awstats"},
    {"AWSTATS_TOOLS_D", "/usr/share/doc/awstats/examples"},
    {"AWSTATS_BIN_D", "/usr/lib/cgi-bin"},
    {"AWSTATS_ETC_D", "/etc/awstats"},
    {"CATALINA_HOME", "/var/lib/tomcat4"},
    {"MAILMAN_VAR_D", "/var/lib/mailman"},
    {"MAILMAN_ROOT_D", "/usr/lib/mailman"},
    {"PGSQL_DATA_D", "/var/lib/postgres/data"},
    {"PGSQL_BIN_D", "/usr/lib/postgresql/bin"},
    {"MYSQL_BIN_D", "/usr/bin"},
    {"MYSQL_VAR_D", "/var/lib/mysql"},
    {"LOGROTATE", "/opt/orb/logrotate/sbin/logrotate"},
    {"WEB_STAT", "/usr/bin/webalizer"},
    {"DUMP_D", "/var/lib/orb/dumps"},
    {"DUMP_TMP_D", "/tmp"},
    {"NAMED_RUN_ROOT_D", "/var/named/run-root"},
    {"FTPD_CONF_INC", "/etc/proftpd.include"},
    {"HTTPD_SERVICE", "apache2"},
    {"HTTPD_LOG_D", "/var/log/apache2"},
    {"HTTPD_INCLUDE_D", "/etc/apache2/conf.d"},
    {"HTTPD_CONF_D", "/etc/apache2"},
    {"HTTPD_VHOSTS_D", "/var/www/vhosts"},
    {"PRODUCT_ROOT_D", zanth::paths::kProductRootDir},
    {"_MAX_POSSIBLE_ORB_CONF_VAR_NAME", "_MAX_POSSIBLE_ORB_CONF_VAR_VALUE"},
};

// The file's table once loaded, and the values already looked up by index.
conf_table* g_runtime = nullptr;
const char* g_cache[kVarCount];
bool g_cache_cleared = false;

bool is_name_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '_';
}

int compare_pairs(const void* a, const void* b) {
  return std::strcmp(static_cast<const conf_pair*>(a)->name,
                     static_cast<const conf_pair*>(b)->name);
}

void log_out_of_memory(const char* format) {
  mail_log(kLogPriority, format, std::strerror(ENOMEM));
  errno = ENOMEM;
}

// make_room - give a new table its first entries, or grow a full one.
int make_room(conf_table* table) {
  if (table->pairs == nullptr) {
    table->pairs = static_cast<conf_pair*>(std::calloc(kInitialCapacity, sizeof(conf_pair)));
    if (table->pairs == nullptr) {
      log_out_of_memory("Unable to read configuration: %s");
      return -1;
    }
    table->capacity = kInitialCapacity;
    table->count = 0;
    table->sorted = 1;
    return 0;
  }
  if (table->count < table->capacity) return 0;

  unsigned capacity = table->capacity >= kDoublingLimit ? 0 : table->capacity * 2;
  if (capacity < table->count) capacity = table->count + kCapacityStep;
  conf_pair* grown = nullptr;
  if (capacity < kCapacityLimit)
    grown = static_cast<conf_pair*>(std::realloc(table->pairs, capacity * sizeof(conf_pair)));
  if (grown == nullptr) {
    log_out_of_memory("Unable to read configuration: %s");
    return -1;
  }
  std::memset(grown + table->capacity, 0, (capacity - table->capacity) * sizeof(conf_pair));
  table->pairs = grown;
  table->capacity = capacity;
  return 0;
}

// cut_value - end the value that runs from value to end (exclusive). A
// white-space character sets the cut mark unless the mark is already set,
// anything else clears it: a single line end goes, an odd trailing blank
// run loses its last character and an even one stays whole. Existing
// files rely on this, so it must not be "fixed".
void cut_value(char* value, char* end) {
  char* mark = nullptr;
  for (char* p = value + 1; p < end; ++p)
    mark = zanth::isPosixSpace(*p) && mark == nullptr ? p : nullptr;
  *(mark != nullptr ? mark : end) = '\0';
}

// parse_line - add the definition held by line, or log why it has none.
// The line is cut up in place. -1 only when the table cannot take it.
int parse_line(char* line, conf_table* table) {
  char* p = line;
  while (zanth::isPosixSpace(*p)) ++p;
  if (*p == '\0' || *p == '#') return 0;

  char* name = p;
  while (is_name_char(*p)) ++p;
  char* name_end = p;
  if (!zanth::isPosixSpace(*p)) {
    mail_log(kLogPriority,
             "Invalid variable definition %s\nExpected a space after variable name\n", name);
    return 0;
  }
  while (zanth::isPosixSpace(*p)) ++p;
  if (*p == '\0' || *p == '#') {
    mail_log(kLogPriority, "Invalid variable definition %s\nExpected a value", name);
    return 0;
  }

  char* value = p;
  char* end = std::strchr(value + 1, '#');
  if (end == nullptr) end = value + std::strlen(value);
  cut_value(value, end);
  *name_end = '\0';
  return conf_add(name, value, table);
}

}  // namespace

conf_table* conf_new() {
  return static_cast<conf_table*>(std::calloc(1, sizeof(conf_table)));
}

int conf_read(const char* path, conf_table* table) {
  if (make_room(table) != 0) return -1;
  zanth::UniqueFile file(std::fopen(path, "re"));
  if (file.get() == nullptr) {
    zanth::ErrnoSaver keep;
    mail_log(kLogPriority, "unable to open configuration file %s: %s\n", path,
             std::strerror(keep.value()));
    return -1;
  }
  return conf_read_stream(file.get(), table);
}

int conf_read_stream(FILE* file, conf_table* table) {
  if (make_room(table) != 0) return -1;
  char* line = nullptr;
  size_t size = 0;
  int result = 0;
  while (getline(&line, &size, file) != -1) {
    if (parse_line(line, table) != 0) {
      result = -1;
      break;
    }
  }
  zanth::ErrnoSaver read_errno;  // the reader's cause outlives the clean-up
  std::free(line);
  if (result != 0) return -1;

  conf_sort(table);
  if (std::ferror(file)) {
    mail_log(kLogPriority, "Unable to read configuration file: %s",
             std::strerror(read_errno.value()));
    return -1;
  }
  return 0;
}

int conf_add(const char* name, const char* value, conf_table* table) {
  if (make_room(table) != 0) return -1;
  conf_pair key = {strdup(name), strdup(value)};
  if (key.name == nullptr || key.value == nullptr) {
    std::free(key.name);
    std::free(key.value);
    log_out_of_memory("Unable to form configuration: %s");
    return -1;
  }

  size_t count = table->count;
  auto* found = static_cast<conf_pair*>(
      lsearch(&key, table->pairs, &count, sizeof(conf_pair), compare_pairs));
  if (count != table->count) {
    table->count = static_cast<unsigned>(count);
    table->sorted = 0;
  } else {
    // A later definition of the same name wins.
    std::free(found->value);
    found->value = key.value;
    std::free(key.name);
  }
  return 0;
}

const char* conf_get(const char* name, conf_table* table) {
  if (table == nullptr || table->count == 0) return nullptr;
  conf_pair key = {const_cast<char*>(name), nullptr};
  const conf_pair* found;
  if (table->sorted) {
    found = static_cast<const conf_pair*>(
        std::bsearch(&key, table->pairs, table->count, sizeof(conf_pair), compare_pairs));
  } else {
    size_t count = table->count;
    found = static_cast<const conf_pair*>(
        lfind(&key, table->pairs, &count, sizeof(conf_pair), compare_pairs));
  }
  return found != nullptr ? found->value : nullptr;
}

void conf_sort(conf_table* table) {
  if (table->sorted) return;
  if (table->count > 1)
    std::qsort(table->pairs, table->count, sizeof(conf_pair), compare_pairs);
  table->sorted = 1;
}

void conf_free(conf_table* table) {
  if (table == nullptr) return;
  for (unsigned i = 0; i < table->count; ++i) {
    std::free(table->pairs[i].name);
    std::free(table->pairs[i].value);
  }
  std::free(table->pairs);
  std::free(table);
}

int orb_conf_load() {
  if (g_runtime != nullptr) return 0;
  if (!g_cache_cleared) {
    for (const char*& value : g_cache) value = nullptr;
    g_cache_cleared = true;
  }
  conf_table* table = conf_new();
  if (table == nullptr) {
    report_error(kReportAndGoOn, kReportFlag,
                 "Not enough memory to allocate Zanth runtime configuration structure\n");
    return -1;
  }
  if (conf_read(kOrbConfPath, table) != 0) {
    zanth::ErrnoSaver keep;
    conf_free(table);
    return -1;
  }
  g_runtime = table;
  return 0;
}

const char* orb_conf_get(int index) {
  if (index < 0 || index >= kVarCount) return nullptr;
  if (g_cache[index] != nullptr) return g_cache[index];
  if (orb_conf_load() != 0) return nullptr;
  const char* value = conf_get(kCompiledVars[index].name, g_runtime);
  if (value != nullptr) g_cache[index] = value;
  return value;
}

const char* orb_conf_get_default(int index) {
  if (index < 0 || index >= kVarCount) return nullptr;
  const char* value = orb_conf_get(index);
  return value != nullptr ? value : kCompiledVars[index].value;
}

const char* orb_conf_get_by_name(const char* name) {
  // The upper sentinel is deliberately left out of the search, the lower
  // one is not: callers have always seen it that way.
  for (int i = ORB_CONF_MIN_VAR; i < ORB_CONF_MAX_VAR; ++i) {
    if (std::strcmp(name, kCompiledVars[i].name) == 0) return orb_conf_get_default(i);
  }
  // Whatever errno a failed load left behind says nothing about this.
  errno = 0;
  report_error(kReportAndGoOn, kReportFlag,
               "variable '%s' isn't found neither in %s nor in compile-time defaults\n", name,
               kOrbConfPath);
  return nullptr;
}

const char* orb_conf_get_any(const char* name) {
  if (orb_conf_load() != 0) return nullptr;
  return conf_get(name, g_runtime);
}

void orb_conf_unload() {
  conf_free(g_runtime);
  g_runtime = nullptr;
  for (const char*& value : g_cache) value = nullptr;
}
