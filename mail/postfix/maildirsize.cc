// Mailbox quota policy: the quota a mailbox gets (less its "@attachments"),
// read from the product database for a mailbox or a whole domain, and the
// domain manager's operations over it. The file itself is written by
// maildirsize_file; the working directory is saved and restored around it
// by WorkingDirectoryGuard.
#include "mail/postfix/maildirsize.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <string>

#include "common/errors.h"
#include "common/maildir_walk.h"
#include "common/product_db.h"
#include "common/syscall.h"
#include "common/syslog_trail.h"
#include "common/working_dir.h"
#include "mail/postfix/maildirsize_file.h"

namespace {

constexpr const char* kAttachmentsDir = "@attachments";
constexpr const char* kAttachmentsWarning =
    "WARNING: @attachments directory is big enough to disable delivery!";

// attachments_size - the apparent size of "@attachments" in the working
// directory when it is there: 1 with *size, 0 when it is not, -1 on error.
int attachments_size(long long* size) {
  struct stat st;
  if (::lstat(kAttachmentsDir, &st) != 0) return 0;
  *size = dir_size(kAttachmentsDir);
  return *size < 0 ? -1 : 1;
}

// A quota as the product database keeps it; anything but a number is none.
long long parse_quota(const char* text) {
  long long quota;
  return text != nullptr && std::sscanf(text, "%lld", &quota) == 1 ? quota : -1;
}

// open_domain_query - connects to the product database and gives the
// domain's ASCII name escaped for a quoted SQL literal. False (reported)
// on failure.
bool open_domain_query(const char* domain, zanth::DbConnection& db, std::string& escaped) {
  char err[256];
  db.reset(db_connect_setup(err, sizeof err));
  if (db.get() == nullptr) {
    report_condition(0, "unable to connect to MySQL");
    return false;
  }
  const zanth::UniqueCString ascii = mail_domain_ascii(domain);
  if (!ascii) return false;
  const size_t length = std::strlen(ascii.get());
  const zanth::UniqueCString buffer(static_cast<char*>(std::malloc(2 * length + 1)));
  if (!buffer) {
    report_error(kReportAndGoOn, kReportFlag, "unable to allocate memory to properly escape %s",
                 domain);
    return false;
  }
  const unsigned long n = mysql_real_escape_string(db.get(), buffer.get(), ascii.get(), length);
  escaped.assign(buffer.get(), n);
  return true;
}

// run_query - the stored result of sql, or null with the query's or the
// result's failure reported through the given formats ("%s": mysql_error).
MYSQL_RES* run_query(MYSQL* conn, const std::string& sql, const char* query_failure,
                     const char* result_failure) {
  if (mysql_real_query(conn, sql.data(), sql.size()) != 0) {
    report_condition(0, query_failure, mysql_error(conn));
    return nullptr;
  }
  MYSQL_RES* result = mysql_store_result(conn);
  if (result == nullptr) report_condition(0, result_failure, mysql_error(conn));
  return result;
}

// sql_with - the query text with the escaped name put in; false (reported)
// when it cannot be built.
bool sql_with(const char* head, const std::string& escaped, const char* tail, std::string& sql) {
  try {
    sql = std::string(head) + escaped + tail;
    return true;
  } catch (const std::bad_alloc&) {
    report_error(kReportAndGoOn, kReportFlag, "domain name is too long to fit query buffer");
    return false;
  }
}

}  // namespace

int mailbox_set_quota(const char* domain, const char* mailbox, long long quota) {
  char path[zanth::kPathMax];
  if (mailbox_path(path, sizeof path, domain, mailbox, "") != 0) {
    if (errno == ENAMETOOLONG)
      report_error(kReportAndGoOn, kReportFlag,
                   "domain and/or user name too long to be stored on the filesystem");
    return 0;
  }
  zanth::WorkingDirectoryGuard cwd;
  if (!cwd.saved()) {
    report_error(kReportAndGoOn, kReportFlag, "unable to get current working directory");
    return 0;
  }
  if (zanth::retryEintr([&] { return ::chdir(path); }) != 0) {
    report_error(kReportAndGoOn, kReportFlag, "unable to change to mbox folder %s: %s", path,
                 std::strerror(errno));
    return 0;
  }
  long long attachments = 0;
  if (quota >= 0) {
    const int found = attachments_size(&attachments);
    if (found < 0) {
      report_error(kReportAndGoOn, kReportFlag, "unable to count attachments folder size");
      return 0;
    }
    quota -= attachments;
    if (quota < 0) {
      report_condition(0, "%s", kAttachmentsWarning);
      quota = 0;
    }
  }
  return maildirsize_create_popuser("./Maildir", quota);
}

int mailbox_reset_quota(const char* domain, const char* mailbox) {
  long long quota;
  {
    zanth::DbConnection db;
    std::string escaped, sql;
    if (!open_domain_query(domain, db, escaped) ||
        !sql_with("SELECT id FROM domains WHERE name='", escaped, "'", sql))
      return 0;
    zanth::DbResult found(run_query(db.get(), sql, "Unable to query domain ID: %s",
                                    "Unable to get domain ID query result: %s"));
    if (found.get() == nullptr) return 0;
    MYSQL_ROW row = mysql_fetch_row(found.get());
    if (row == nullptr || row[0] == nullptr) {
      report_condition(0, "No such domain %s", domain);
      return 0;
    }
    quota = parse_quota(db_get_dom_limit(row[0], "mbox_quota", db.get()));
  }
  return mailbox_set_quota(domain, mailbox, quota);
}

int domain_set_default_quota(const char* domain, long long quota) {
  zanth::DbConnection db;
  std::string escaped, sql;
  static constexpr char kHead[] =
      "SELECT m.mail_name, m.mbox_quota FROM mail m, domains d WHERE d.id = m.dom_id AND d.name='";
  if (!open_domain_query(domain, db, escaped) || !sql_with(kHead, escaped, "' ", sql))
    return 0;
  zanth::DbResult mailboxes(
      run_query(db.get(), sql, "Unable to query mailnames: %s", "Unable to query mailnames: %s"));
  if (mailboxes.get() == nullptr) return 0;
  for (MYSQL_ROW row; (row = mysql_fetch_row(mailboxes.get())) != nullptr;) {
    if (row[0] == nullptr || parse_quota(row[1]) != -1) continue;  // its own quota
    if (!mailbox_set_quota(domain, row[0], quota)) {
      report_error(kReportAndGoOn, kReportFlag,
                   "unable to set default mbox quota for domain '%s' (processing '%s')", domain,
                   row[0]);
      return 0;
    }
  }
  return 1;
}

int domain_remove_default_quota(const char* domain) { return domain_set_default_quota(domain, -1); }

int domain_remove_quota(const char* domain) { return domain_set_default_quota(domain, -1); }

int domain_set_quota(const char* domain, long long quota) {
  return domain_set_default_quota(domain, quota);
}

namespace zanth {
namespace mail {
namespace postfix {
namespace {

namespace fs = boost::filesystem;

boost::system::error_code systemCode(int code) {
  return boost::system::error_code(code, boost::system::system_category());
}

// The domain manager's failure: the lower layer has said why already.
void throwUnless(int done, const char* text, const fs::path& path) {
  if (!done) throw fs::filesystem_error(text, path, systemCode(0));
}

}  // namespace

void createMaildirsize(const PopUser& popUser, const std::string& domain,
                       const std::string& mailbox, long long quota) {
  const fs::path box = mailboxDirectory(domain, mailbox);
  WorkingDirectoryGuard cwd;
  if (!cwd.saved()) throw fs::filesystem_error("getcwd", systemCode(errno));
  if (retryEintr([&] { return ::chdir(box.c_str()); }) != 0)
    throw fs::filesystem_error("chdir", box, systemCode(errno));
  if (quota >= 0) {
    struct stat st;
    // A failed size count is not looked at here: the quota then grows by 1.
    if (::stat(kAttachmentsDir, &st) == 0 && S_ISDIR(st.st_mode))
      quota -= dir_size(kAttachmentsDir);
    if (quota < 0) {
      std::cerr << kAttachmentsWarning << std::endl;
      zanth::trail::diagnostic(LOG_WARNING, kAttachmentsWarning);
      quota = 0;
    }
  }
  if (!maildirsize_create("Maildir", popUser.uid, popUser.gid, maildirsize_quota_to_write(quota),
                          0))
    throw fs::filesystem_error("create maildirsize", box, systemCode(errno));
}

void resetMailboxQuota(const PopUser&, const std::string& domain, const std::string& mailbox) {
  throwUnless(mailbox_reset_quota(domain.c_str(), mailbox.c_str()), "unable to remove quota",
              mailboxDirectory(domain, mailbox));
}

void storeDefaultMailboxQuota(const PopUser&, const std::string& domain, long long quota) {
  throwUnless(domain_set_default_quota(domain.c_str(), quota), "unable to store default mbox quota",
              domainDirectory(domain));
}

void removeDefaultMailboxQuota(const PopUser&, const std::string& domain) {
  throwUnless(domain_remove_default_quota(domain.c_str()), "unable to remove default mbox quota",
              domainDirectory(domain));
}

void storeDomainQuota(const PopUser&, const std::string& domain, long long quota) {
  throwUnless(domain_set_quota(domain.c_str(), quota), "unable to store domain quota",
              domainDirectory(domain));
}

void removeDomainQuota(const PopUser&, const std::string& domain) {
  throwUnless(domain_remove_quota(domain.c_str()), "unable to remove domain quota",
              domainDirectory(domain));
}

}  // namespace postfix
}  // namespace mail
}  // namespace zanth
