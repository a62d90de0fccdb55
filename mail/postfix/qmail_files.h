// Delivery files: the ".qmail" file in each mailbox directory, one
// instruction per line for the local delivery agent (store through
// deliverquota, forward with "&address", or "| true" to accept and
// discard). After every change the file is popuser's with mode 0600.
// Two layers: the qmail_* functions give 0 / -1 and report once through
// report_error (never exiting); the domain manager's functions throw
// zanth::SystemError "unable to modify <path>" with the current errno.
// Kept for the control panel: neither command reaches it.
#ifndef MXKEEP_MAIL_POSTFIX_QMAIL_FILES_H
#define MXKEEP_MAIL_POSTFIX_QMAIL_FILES_H

#include <cstddef>
#include <string>

// qmail_path - "<mail-names root>/<ASCII domain>/<mailname>/.qmail" into
// buf. The mailname must begin with a letter, a digit, "_" or "-".
int qmail_path(char* buf, size_t size, const char* mailname, const char* domain);

// mailname_home_path - the mailbox directory, built as qmail_path is.
int mailname_home_path(char* buf, size_t size, const char* mailname, const char* domain);

// qmail_write_discard - make path hold the single line "| true".
int qmail_write_discard(const char* path);

// qmail_file_enable_mailbox - deliver into ./Maildir through deliverquota:
// a plain "./Maildir/" line is dropped and the deliverquota line ends up
// last, exactly once. A missing file is created.
int qmail_file_enable_mailbox(const char* path);

// qmail_file_disable_mailbox - drop both Maildir lines; the file must exist.
int qmail_file_disable_mailbox(const char* path);

// qmail_file_add_forward - "&<address with ASCII domain>" as the last line,
// exactly once. A missing file is created.
int qmail_file_add_forward(const char* path, const char* address);

// qmail_file_remove_forward - drop the address's "&" lines; the file must
// exist.
int qmail_file_remove_forward(const char* path, const char* address);

// The same for the delivery file of mailname in domain (see qmail_path).
int qmail_enable_mailbox(const char* mailname, const char* domain);
int qmail_disable_mailbox(const char* mailname, const char* domain);
int qmail_add_forward(const char* mailname, const char* domain, const char* address);
int qmail_remove_forward(const char* mailname, const char* domain, const char* address);

namespace zanth {
namespace mail {
namespace postfix {

// The domain manager's delivery-file steps on mailboxDirectory / ".qmail";
// domain is the ASCII name. Each throws SystemError "unable to modify
// <path>" when the lower step fails (which has reported the cause).
void createQmailFile(const std::string& domain, const std::string& mailbox);
void addForward(const std::string& domain, const std::string& mailbox,
                const std::string& address);
void removeForward(const std::string& domain, const std::string& mailbox,
                   const std::string& address);
void enableMailbox(const std::string& domain, const std::string& mailbox);
void disableMailbox(const std::string& domain, const std::string& mailbox);

}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_QMAIL_FILES_H
