// Mail directories: where a domain's and a mailbox's directories lie under
// the mail-names root, who owns them and with which modes they are made,
// and the create, rename, move-aside and remove operations on them.
// Failures throw boost::filesystem::filesystem_error; a missing popuser
// account throws zanth::SystemError. The procedural mail code builds its
// mailbox paths with mailbox_path, which reports instead.
#ifndef MXKEEP_MAIL_POSTFIX_MAIL_DIRS_H
#define MXKEEP_MAIL_POSTFIX_MAIL_DIRS_H

#include <sys/types.h>

#include <boost/filesystem/path.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/syscall.h"

// mail_domain_ascii - domain's ASCII form, or null with "idn_toascii(%s)
// failed: %s" reported (errno 0: no system call failed).
zanth::UniqueCString mail_domain_ascii(const char* domain);

// mailbox_path - "<mail-names root>/<ASCII domain>/<mailbox><suffix>" into
// buf (size bytes): the mailbox directory (suffix "") or a file in it, as
// mailboxDirectory spells it. 0; -1 when the domain has no ASCII form
// (reported by mail_domain_ascii, errno 0), or with errno ENAMETOOLONG and
// nothing reported when the path does not fit: the caller says what it
// wanted the path for.
int mailbox_path(char* buf, size_t size, const char* domain, const char* mailbox,
                 const char* suffix);

namespace zanth {
namespace mail {
namespace postfix {

// The account that owns every mail directory.
struct PopUser {
  uint32_t uid;
  uint32_t gid;
};

// getPopUser - the process-wide popuser record, looked up again on every
// call so that a changed account is seen. Throws SystemError when the
// account does not exist.
const PopUser& getPopUser();

// What to do with a deleted domain's or mailbox's directory; any other
// value keeps it.
enum DirectoryDisposal { kKeepDirectory = 0, kRemoveDirectory = 1, kSaveDirectory = 2 };

// domainDirectory - mail-names root / domain (root read on every call).
boost::filesystem::path domainDirectory(const std::string& domain);

// mailboxDirectory - mail-names root / domain / mailbox, spelled as
// mailbox_path spells it (domain as given). A path too long for any system
// call throws ENAMETOOLONG.
boost::filesystem::path mailboxDirectory(const std::string& domain, const std::string& mailbox);

// relativeDomainPath - the domain name alone, as the vmailbox map's values
// begin with it ("domain/mailbox/").
boost::filesystem::path relativeDomainPath(const std::string& domain);

// domainDirectoryMoved - true when oldDomain's directory is gone (or a
// hold) and newDomain's is a real directory: what a rename that stopped
// after its move leaves, and what the same rename run again takes as moved.
bool domainDirectoryMoved(const std::string& oldDomain, const std::string& newDomain);

// A directory hold: an empty directory owned by root with mode 0 in a
// domain's place under the mail-names root. Postfix's virtual delivery,
// which runs as popuser, cannot make a mailbox inside it, so mail routed
// there meanwhile is deferred and retried instead of being delivered into
// a new directory of that name; a move replaces it atomically.

// holdDomainDirectory - puts a hold in domain's place when nothing or an
// empty directory is there; a directory with content (or a hold) is left
// as it is.
void holdDomainDirectory(const std::string& domain);

// domainDirectoryHeld - a hold is in domain's place.
bool domainDirectoryHeld(const std::string& domain);

// releaseDomainDirectory - removes the hold in domain's place, if any.
void releaseDomainDirectory(const std::string& domain);

// renameDomainDirectory - renames oldDomain's directory to newDomain's;
// when a hold is in newDomain's place the two are exchanged in one step,
// so the hold is then in oldDomain's place. Nothing else is checked.
void renameDomainDirectory(const PopUser& popUser, const std::string& oldDomain,
                           const std::string& newDomain);

// createDomainDirectory - makes the domain directory (and missing parents)
// owned by root:popuser with mode 0750.
void createDomainDirectory(const PopUser& popUser, const std::string& domain);

// removeDomainDirectory - moves the directory aside, then removes the
// moved tree; a missing directory is no error.
void removeDomainDirectory(const PopUser& popUser, const std::string& domain);

// saveDomainDirectory - moves the directory aside and keeps it; a missing
// directory is no error.
void saveDomainDirectory(const PopUser& popUser, const std::string& domain);

// createMailboxDirectory - makes the mailbox directory with its Maildir
// layout, all popuser:popuser 0700. On failure the mailbox directory is
// removed again and the first error is thrown.
void createMailboxDirectory(const PopUser& popUser, const std::string& domain,
                            const std::string& mailbox);

// removeMailboxDirectory - removes the mailbox tree; missing is no error.
void removeMailboxDirectory(const PopUser& popUser, const std::string& domain,
                            const std::string& mailbox);

// saveMailboxDirectory - moves the mailbox directory aside and keeps it.
void saveMailboxDirectory(const PopUser& popUser, const std::string& domain,
                          const std::string& mailbox);

// renameMailboxDirectory - renames a mailbox directory within its domain.
void renameMailboxDirectory(const PopUser& popUser, const std::string& domain,
                            const std::string& oldMailbox, const std::string& newMailbox);

// disposeDomainDirectory / disposeMailboxDirectory - apply a disposal when
// a domain or a mailbox is deleted.
void disposeDomainDirectory(const PopUser& popUser, const std::string& domain, int disposal);
void disposeMailboxDirectory(const PopUser& popUser, const std::string& domain,
                             const std::string& mailbox, int disposal);

// moveAside - renames path to path + ".ZanthSaved." + its inode number and
// stores that name in saved. True with an empty saved when nothing is
// there (ENOENT, ENOTDIR); false with errno set, saved untouched, when the
// path cannot be examined; a failed rename throws.
bool moveAside(const boost::filesystem::path& path, boost::filesystem::path& saved);

}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_MAIL_DIRS_H
