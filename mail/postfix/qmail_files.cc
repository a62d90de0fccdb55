// Delivery files. The edits of one call are made in a single locked
// rewrite of the file (file_str_edit), so the delivery agent never reads
// it between dropping a line and adding it again: a mailbox being enabled
// a second time never passes through a moment of "| true" alone.
#include "mail/postfix/qmail_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/errors.h"
#include "common/file_util.h"
#include "common/idn.h"
#include "common/syscall.h"
#include "mail/postfix/mail_dirs.h"
#include "process/file_str.h"

namespace {

constexpr const char* kDiscardLine = "| true\n";
constexpr const char* kDeliverLine = "| /usr/bin/deliverquota ./Maildir";
// A quota-blind delivery line written by other tools; never kept.
constexpr const char* kPlainMaildirLine = "./Maildir/";
constexpr const char* kOwner = "popuser";
constexpr mode_t kMode = 0600;

bool is_ascii_alnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// mailname_format - mailbox_path of a mailname that passes the name rule;
// too_long is the message for a path that does not fit.
int mailname_format(char* buf, size_t size, const char* mailname, const char* domain,
                    const char* suffix, const char* too_long) {
  if (mailname == nullptr || domain == nullptr ||
      !(is_ascii_alnum(mailname[0]) || mailname[0] == '_' || mailname[0] == '-'))
    return report_condition(EINVAL, "empty mailname or maildomain");
  if (mailbox_path(buf, size, domain, mailname, suffix) == 0) return 0;
  if (errno == ENAMETOOLONG) return report_condition(ENAMETOOLONG, too_long, domain, mailname);
  errno = EINVAL;  // the domain has no ASCII form (reported)
  return -1;
}

// forward_line - "&" + address with its domain in ASCII + line_end; null
// when reported.
zanth::UniqueCString forward_line(const char* address, const char* line_end,
                                  const char* asprintf_failure) {
  idn_last_error = 0;
  const zanth::UniqueCString ascii(idn_email_toascii(address));
  if (!ascii || idn_last_error != 0) {
    // Without "@" there is no error code to name.
    const char* why =
        idn_last_error != 0 ? idn_strerror(idn_last_error) : "no \"@\" in the address";
    report_condition(EINVAL, "idn_email_toascii(%s) failed: %s", address, why);
    return zanth::UniqueCString();
  }
  char* line = nullptr;
  if (asprintf(&line, "&%s%s", ascii.get(), line_end) < 0) {
    report_error(kReportAndGoOn, kReportFlag, asprintf_failure, ascii.get(), std::strerror(errno));
    return zanth::UniqueCString();
  }
  return zanth::UniqueCString(line);
}

int set_delivery_owner(const char* path) { return set_owner_by_name(path, kOwner, kMode); }

// edit - one rewrite of the delivery file, then its owner and mode.
int edit(const char* path, const char* const* remove, size_t count, const char* add,
         const char* failure) {
  if (file_str_edit(path, remove, count, add) != 0) {
    report_error(kReportAndGoOn, kReportFlag, failure, path);
    return -1;
  }
  return set_delivery_owner(path);
}

// edit_forward - drop the address's "&" lines and, when adding, append
// one. The two directions build their line differently (with and without
// the line feed) and have their own texts; both name the same lines.
int edit_forward(const char* path, const char* address, bool adding) {
  const zanth::UniqueCString owned =
      adding ? forward_line(address, "", "asprintf(\"&%%s\", %s) failed: %s")
             : forward_line(address, "\n", "asprintf(\"&%%s\", %s): %s");
  if (!owned) return -1;
  const char* line = owned.get();
  return edit(path, &line, 1, adding ? line : nullptr,
              adding ? "Unable to add string to %s file."
                     : "Unable to remove string from %s file.");
}

// on_qmail_path - run step on the delivery file of mailname in domain.
template <class Step>
int on_qmail_path(const char* mailname, const char* domain, Step step) {
  char path[zanth::kPathMax];
  if (qmail_path(path, sizeof path, mailname, domain) != 0) return -1;
  return step(path);
}

const char* const kMaildirLines[] = {kPlainMaildirLine, kDeliverLine};
constexpr size_t kMaildirLineCount = sizeof kMaildirLines / sizeof kMaildirLines[0];

}  // namespace

int qmail_path(char* buf, size_t size, const char* mailname, const char* domain) {
  return mailname_format(buf, size, mailname, domain, "/.qmail",
                         "Either domain name '%s' or mailname '%s' are too long to store .qmail "
                         "path in the provided buffer");
}

int mailname_home_path(char* buf, size_t size, const char* mailname, const char* domain) {
  return mailname_format(buf, size, mailname, domain, "",
                         "Either domain name '%s' or mailname '%s' are too long to store mailname "
                         "home path in the provided buffer");
}

int qmail_write_discard(const char* path) {
  zanth::ReplacementFile file(path);
  if (!file.open()) {
    report_error(kReportAndGoOn, kReportFlag, "Unable to open %s: %s", path, std::strerror(errno));
    return -1;
  }
  if (!file.write(kDiscardLine) || !file.commit(kMode)) {
    file.discard();
    report_error(kReportAndGoOn, kReportFlag, "Unable to write to %s: %s", path,
                 std::strerror(errno));
    return -1;
  }
  return set_delivery_owner(path);
}

int qmail_file_enable_mailbox(const char* path) {
  return edit(path, kMaildirLines, kMaildirLineCount, kDeliverLine,
              "Unable to add string to %s file.");
}

int qmail_file_disable_mailbox(const char* path) {
  return edit(path, kMaildirLines, kMaildirLineCount, nullptr,
              "Unable to remove string from %s file");
}

int qmail_file_add_forward(const char* path, const char* address) {
  return edit_forward(path, address, true);
}

int qmail_file_remove_forward(const char* path, const char* address) {
  return edit_forward(path, address, false);
}

int qmail_enable_mailbox(const char* mailname, const char* domain) {
  return on_qmail_path(mailname, domain, qmail_file_enable_mailbox);
}

int qmail_disable_mailbox(const char* mailname, const char* domain) {
  return on_qmail_path(mailname, domain, qmail_file_disable_mailbox);
}

int qmail_add_forward(const char* mailname, const char* domain, const char* address) {
  return on_qmail_path(mailname, domain,
                       [&](const char* path) { return qmail_file_add_forward(path, address); });
}

int qmail_remove_forward(const char* mailname, const char* domain, const char* address) {
  return on_qmail_path(mailname, domain,
                       [&](const char* path) { return qmail_file_remove_forward(path, address); });
}

namespace zanth {
namespace mail {
namespace postfix {
namespace {

// modify - run the lower step on the mailbox's delivery file.
template <class Step>
void modify(const std::string& domain, const std::string& mailbox, Step step) {
  const std::string path = (mailboxDirectory(domain, mailbox) / ".qmail").string();
  if (step(path.c_str()) != 0) throw SystemError("unable to modify " + path);
}

}  // namespace

void createQmailFile(const std::string& domain, const std::string& mailbox) {
  modify(domain, mailbox, qmail_write_discard);
}

void addForward(const std::string& domain, const std::string& mailbox,
                const std::string& address) {
  modify(domain, mailbox,
         [&](const char* path) { return qmail_file_add_forward(path, address.c_str()); });
}

void removeForward(const std::string& domain, const std::string& mailbox,
                   const std::string& address) {
  modify(domain, mailbox,
         [&](const char* path) { return qmail_file_remove_forward(path, address.c_str()); });
}

void enableMailbox(const std::string& domain, const std::string& mailbox) {
  modify(domain, mailbox, qmail_file_enable_mailbox);
}

void disableMailbox(const std::string& domain, const std::string& mailbox) {
  modify(domain, mailbox, qmail_file_disable_mailbox);
}

}  // namespace postfix
}  // namespace mail
}  // namespace zanth
