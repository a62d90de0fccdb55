// Mail authentication database location, creation and permissions, and the
// detection of the installed mail server. Every failure is logged once
// through mail_log at the point where it happens.
#include "mail/auth/auth_db.h"

#include <libgen.h>
#include <pwd.h>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/file_util.h"
#include "common/fixed_paths.h"
#include "common/mail_log.h"
#include "common/orb_conf.h"
#include "common/syscall.h"
#include "mail/auth/auth_sqlite.h"

namespace {

// Where each style keeps the database and what its directory and file get.
struct AuthLocation {
  const char* path;
  bool owner_is_postfix;  // else root
  mode_t dir_mode;
  mode_t file_mode;
};

// The Postfix file is readable by its owner but writable by group root
// only; the SMTP side reads it as "postfix", the panel writes it as root.
constexpr AuthLocation kLocations[] = {
    {zanth::paths::kAuthDbPath, false, 0750, 0600},
    {zanth::paths::kAuthDbPostfixPath, true, 0770, 0460},
};

constexpr char kPostfixUser[] = "postfix";

// The whole schema, run as one text: SQLite of the era these files were
// first written with enforced no foreign keys, so triggers stand in.
constexpr char kSchema[] =
    "BEGIN TRANSACTION;"
    "CREATE TABLE domains (  id     INTEGER PRIMARY KEY AUTOINCREMENT, name   VARCHAR(255) UNIQUE, status INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX domains_name ON domains(name);"
    "CREATE TRIGGER fkd_users_domains_id  BEFORE DELETE ON domains  FOR EACH ROW BEGIN    DELETE FROM users WHERE dom_id = OLD.id;  END;"
    "CREATE TABLE users(  id           INTEGER PRIMARY KEY AUTOINCREMENT, dom_id       INTEGER NOT NULL, name         VARCHAR(255) NOT NULL, userPassword VARCHAR(255), cmusaslsecretPLAIN VARCHAR(255), status INT NOT NULL DEFAULT 0, UNIQUE(name, dom_id));"
    "CREATE INDEX users_name ON users(name);"
    "CREATE INDEX users_dom_id ON users(dom_id);"
    "CREATE TRIGGER fki_users_domains_id  BEFORE INSERT ON users  FOR EACH ROW BEGIN    SELECT RAISE(ROLLBACK, 'insert on table \"users\" violates foreign key constraint \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END;"
    "CREATE TRIGGER fku_users_domains_id  BEFORE UPDATE ON users  FOR EACH ROW BEGIN    SELECT RAISE(ROLLBACK, 'update on table \"users\" violates foreign key constraint \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END;"
    "COMMIT;";

constexpr char kFeatureKey[] = "$features['SMTP_Server']";
constexpr size_t kFeatureKeyLen = sizeof kFeatureKey - 1;
static_assert(kFeatureKeyLen == 24, "the key must be compared in full");
constexpr char kQuotes[] = "'\"";

// parent_dir - dirname of a copy of path, kept alive in *copy; null, with
// the allocation failure logged, when the copy cannot be made.
const char* parent_dir(const char* path, zanth::UniqueCString* copy) {
  copy->reset(strdup(path));
  if (!*copy) {
    errno = ENOMEM;
    mail_log(LOG_CRIT, "Memory allocation error");
    return nullptr;
  }
  return dirname(copy->get());
}

// make_parent_dirs - create the directory that is to hold path, with its
// missing ancestors.
int make_parent_dirs(const char* path) {
  zanth::UniqueCString copy;
  const char* dir = parent_dir(path, &copy);
  if (!copy) return -1;
  if (dir == nullptr) {
    mail_log(LOG_CRIT, "dirname(%s) failed: %s", path, std::strerror(errno));
    return -1;
  }
  if (make_dirs(dir) == 0) {
    mail_log(LOG_CRIT, "recursive mkdir(%s) failed: %s", dir, std::strerror(errno));
    return -1;
  }
  return 0;
}

// style_of_line - the style a "$features['SMTP_Server']" line names, or -1
// when the line says nothing usable (reported, then skipped).
int style_of_line(const char* line) {
  const char* open = std::strpbrk(line + kFeatureKeyLen, kQuotes);
  const char* close = open != nullptr ? std::strpbrk(open + 1, kQuotes) : nullptr;
  if (close == nullptr) {
    mail_log(LOG_INFO, "Unparseable line \"%s\", skipped", line);
    return -1;
  }
  const char* value = open + 1;
  // One character short of the value is compared, so "postfi" and any
  // one-character value still mean Postfix; the feature query has always
  // been read this way.
  const int n = static_cast<int>(close - value) - 1;
  if (n >= 0) {
    if (strncasecmp(value, "postfix", n) == 0) return kMailStylePostfix;
    if (strncasecmp(value, "qmail", n) == 0) return kMailStyleQmail;
  }
  mail_log(LOG_INFO, "Unknown server style \"%.*s\", skipped", n < 0 ? 0 : n, value);
  return -1;
}

}  // namespace

const char* mail_auth_db_path = kLocations[kMailStyleQmail].path;

int mail_auth_select_style(int style) {
  if (style != kMailStyleQmail && style != kMailStylePostfix) return style - 1;
  mail_auth_db_path = kLocations[style].path;
  return 0;
}

void mail_auth_set_path(const char* path) { mail_auth_db_path = path; }

int mail_auth_detect_style() {
  const char* root = orb_conf_get_default(PRODUCT_ROOT_D);
  char command[zanth::kPathMax];
  if (!zanth::path_format(command, sizeof command, "%s/admin/sbin/mxkeep --features", root)) {
    mail_log(LOG_ERR, "path to mxkeep is too long, check PRODUCT_ROOT_D (%s)", root);
    return -1;
  }
  // The command's exit status is of no use here: only its output counts.
  zanth::UniquePipeStream pipe(popen(command, "re"));
  if (pipe.get() == nullptr) {
    mail_log(LOG_ERR, "unable to execute %s: %s", command, std::strerror(errno));
    return -1;
  }
  return mail_auth_read_features(pipe.get());
}

int mail_auth_read_features(FILE* features) {
  char* raw = nullptr;
  size_t capacity = 0;
  int style = -1;
  for (;;) {
    ssize_t len = zanth::retryEintr([&] {
      errno = 0;
      clearerr(features);
      return getdelim(&raw, &capacity, '\n', features);
    });
    if (len < 0) break;
    if (len > 0 && raw[len - 1] == '\n') raw[len - 1] = '\0';
    if (std::strncmp(raw, kFeatureKey, kFeatureKeyLen) != 0) continue;
    style = style_of_line(raw);
    if (style != -1) break;
  }
  std::free(raw);
  if (style == -1)
    mail_log(LOG_INFO, "Unable to determine mail server type from ``mxkeep --features''");
  return style;
}

int mail_auth_recreate() {
  const char* path = mail_auth_db_path;
  if (make_parent_dirs(path) != 0) return -1;
  // Start from nothing: a missing file is what we want anyway.
  unlink(path);

  zanth::SqliteDb db;
  if (zanth::openAuthDb(db, path, "Unable to open database %s: %s") != 0) return -1;
  char* message = nullptr;
  int rc = zanth::sqliteRetry(
      [&db, &message] {
        sqlite3_free(message);
        message = nullptr;
        return sqlite3_exec(db.get(), kSchema, nullptr, nullptr, &message);
      },
      [](int result) { return result == SQLITE_BUSY || result == SQLITE_LOCKED; });
  if (rc == zanth::kSqliteRetryAborted) {
    sqlite3_free(message);
    db.release();
    return -1;
  }
  int result = 0;
  if (rc != SQLITE_OK) {
    if (message != nullptr)
      mail_log(LOG_ERR, "Unable to re-create Mail Authentication Database: %s", message);
    else
      mail_log(LOG_ERR, "Unable to re-create Mail Authentication Database");
    result = -1;
  }
  sqlite3_free(message);
  if (db.close() != 0) return -1;
  return result;
}

int mail_auth_init(int style) {
  mail_auth_select_style(style);
  if (mail_auth_recreate() != 0) return -1;
  const bool postfix = style == kMailStylePostfix;
  const AuthLocation& location = kLocations[postfix ? kMailStylePostfix : kMailStyleQmail];
  uid_t uid = 0;
  if (location.owner_is_postfix) {
    errno = 0;
    const struct passwd* pw = getpwnam(kPostfixUser);
    if (pw == nullptr) {
      mail_log(LOG_CRIT, "Unable to get user id for \"%s\": %s", kPostfixUser,
               std::strerror(errno));
      return -1;
    }
    uid = pw->pw_uid;
  }
  return mail_auth_set_permissions(uid, 0, location.dir_mode, location.file_mode);
}

int mail_auth_set_permissions(uid_t uid, gid_t gid, mode_t dir_mode, mode_t file_mode) {
  const char* path = mail_auth_db_path;
  zanth::UniqueCString copy;
  const char* dir = parent_dir(path, &copy);
  if (dir == nullptr) return -1;
  if (dir[0] != '/' || dir[1] == '\0') {
    mail_log(LOG_CRIT, "Invalid mail authentication DB path %s", path);
    return -1;
  }
  const int log_uid = static_cast<int>(uid);
  const int log_gid = static_cast<int>(gid);
  // The directory first, then the database file in it.
  const struct {
    const char* name;
    mode_t mode;
  } targets[] = {{dir, dir_mode}, {path, file_mode}};
  for (const auto& target : targets) {
    switch (set_owner_and_mode(target.name, uid, gid, target.mode)) {
      case OWNER_MODE_SET:
        break;
      case OWNER_MODE_CHOWN_FAILED:
        mail_log(LOG_CRIT, "chown(\"%s\", %d, %d) failed: %s", target.name, log_uid, log_gid,
                 std::strerror(errno));
        return -1;
      case OWNER_MODE_CHMOD_FAILED:
        // The directory's mode is printed for the file too, as this message
        // always has.
        mail_log(LOG_CRIT, "chmod(\"%s\", %04o) failed: %s", target.name, dir_mode,
                 std::strerror(errno));
        return -1;
    }
  }
  return 0;
}
