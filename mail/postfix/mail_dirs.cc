// Mail directories under the mail-names root: paths, owners, modes, and the
// create / rename / move-aside / remove operations, and the directory holds
// kept while Postfix delivers. The process umask is narrowed to 077 while
// directories are made and always put back.
#include "mail/postfix/mail_dirs.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/lexical_cast.hpp>
#include <boost/system/error_code.hpp>

#include <cerrno>
#include <cstdio>

#include "common/errors.h"
#include "common/file_util.h"
#include "common/idn.h"
#include "common/orb_conf.h"
#include "common/syscall.h"

namespace fs = boost::filesystem;

namespace zanth {
namespace mail {
namespace postfix {
namespace {

constexpr mode_t kCreateUmask = 077;
constexpr mode_t kDomainDirectoryMode = 0750;
constexpr mode_t kMailboxDirectoryMode = 0700;
constexpr uid_t kRootUid = 0;
constexpr gid_t kRootGid = 0;
constexpr mode_t kHoldMode = 0;
constexpr const char* kSavedInfix = ".ZanthSaved.";
constexpr const char* kHoldInfix = ".ZanthHold.";

// The mailbox layout, made in this order inside a new mailbox directory.
constexpr const char* kMailboxLayout[] = {"Maildir", "Maildir/tmp", "Maildir/new", "Maildir/cur",
                                          "@attachments"};

// Sets the process umask for its lifetime and restores the caller's.
class ScopedUmask final {
 public:
  explicit ScopedUmask(mode_t mask) : saved_(::umask(mask)) {}
  ~ScopedUmask() { ::umask(saved_); }
  ScopedUmask(const ScopedUmask&) = delete;
  ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
  const mode_t saved_;
};

boost::system::error_code systemCode(int code) {
  return boost::system::error_code(code, boost::system::system_category());
}

[[noreturn]] void throwFilesystemError(const char* operation, const fs::path& path, int code) {
  throw fs::filesystem_error(operation, path, systemCode(code));
}

// setOwnerAndMode - set_owner_and_mode, a failed call thrown by its name.
void setOwnerAndMode(const fs::path& dir, uid_t uid, gid_t gid, mode_t mode) {
  switch (set_owner_and_mode(dir.c_str(), uid, gid, mode)) {
    case OWNER_MODE_SET:
      return;
    case OWNER_MODE_CHOWN_FAILED:
      throwFilesystemError("chown", dir, errno);
    case OWNER_MODE_CHMOD_FAILED:
      throwFilesystemError("chmod", dir, errno);
  }
}

fs::path mailNamesRoot() { return fs::path(orb_conf_get_default(ZANTH_MAILNAMES_D)); }

// format_mailbox_path - the one spelling of a mailbox's path; false when it
// does not fit.
bool format_mailbox_path(char* buf, size_t size, const char* domain, const char* mailbox,
                         const char* suffix) {
  return path_format(buf, size, "%s/%s/%s%s", orb_conf_get_default(ZANTH_MAILNAMES_D), domain,
                     mailbox, suffix);
}

// saveDirectory - moveAside, turning "cannot examine" into an error.
void saveDirectory(const fs::path& dir) {
  fs::path saved;
  if (!moveAside(dir, saved)) throw fs::filesystem_error("rename", dir, saved, systemCode(errno));
}

}  // namespace

const PopUser& getPopUser() {
  static PopUser popUser;
  // Looked up on every call on purpose, never cached: the account may be
  // re-created with other ids while a long-lived caller runs.
  errno = 0;
  const struct passwd* pw = ::getpwnam("popuser");
  if (pw == nullptr) throw SystemError("user popusernot found");
  popUser.uid = pw->pw_uid;
  popUser.gid = pw->pw_gid;
  return popUser;
}

fs::path domainDirectory(const std::string& domain) { return mailNamesRoot() / domain; }

fs::path mailboxDirectory(const std::string& domain, const std::string& mailbox) {
  char path[kPathMax];
  if (!format_mailbox_path(path, sizeof path, domain.c_str(), mailbox.c_str(), ""))
    throwFilesystemError("mailbox path", domainDirectory(domain) / mailbox, ENAMETOOLONG);
  return fs::path(path);
}

fs::path relativeDomainPath(const std::string& domain) { return fs::path(domain); }

bool moveAside(const fs::path& path, fs::path& saved) {
  struct stat st;
  if (retryEintr([&] { return ::stat(path.c_str(), &st); }) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      saved = fs::path();
      return true;
    }
    return false;
  }
  saved = fs::path(path.string() + kSavedInfix + boost::lexical_cast<std::string>(st.st_ino));
  fs::rename(path, saved);
  return true;
}

bool domainDirectoryMoved(const std::string& oldDomain, const std::string& newDomain) {
  return (!fs::exists(domainDirectory(oldDomain)) || domainDirectoryHeld(oldDomain)) &&
         fs::is_directory(domainDirectory(newDomain)) && !domainDirectoryHeld(newDomain);
}

bool domainDirectoryHeld(const std::string& domain) {
  const fs::path dir = domainDirectory(domain);
  struct stat st;
  if (retryEintr([&] { return ::lstat(dir.c_str(), &st); }) != 0) return false;
  boost::system::error_code error;
  return S_ISDIR(st.st_mode) && st.st_uid == kRootUid && (st.st_mode & 07777) == 0 &&
         fs::is_empty(dir, error) && !error;
}

void holdDomainDirectory(const std::string& domain) {
  if (domainDirectoryHeld(domain)) return;
  const fs::path dir = domainDirectory(domain);
  // Made under another name and renamed into place: rename(2) puts it there
  // in one step, replacing an empty directory, and refuses one with content.
  const fs::path made(dir.string() + kHoldInfix + boost::lexical_cast<std::string>(::getpid()));
  ::rmdir(made.c_str());  // left by a run that was killed right here
  if (::mkdir(made.c_str(), kHoldMode) != 0) throwFilesystemError("mkdir", made, errno);
  if (::lchown(made.c_str(), kRootUid, kRootGid) != 0 || ::chmod(made.c_str(), kHoldMode) != 0 ||
      ::rename(made.c_str(), dir.c_str()) != 0) {
    const int code = errno;
    ::rmdir(made.c_str());
    if (code == ENOTEMPTY || code == EEXIST) return;
    throwFilesystemError("rename", dir, code);
  }
}

void releaseDomainDirectory(const std::string& domain) {
  if (!domainDirectoryHeld(domain)) return;
  const fs::path dir = domainDirectory(domain);
  if (::rmdir(dir.c_str()) != 0 && errno != ENOENT) throwFilesystemError("rmdir", dir, errno);
}

void renameDomainDirectory(const PopUser&, const std::string& oldDomain,
                           const std::string& newDomain) {
  const fs::path from = domainDirectory(oldDomain);
  const fs::path to = domainDirectory(newDomain);
  if (!domainDirectoryHeld(newDomain)) {
    fs::rename(from, to);
    return;
  }
  // No moment without a directory in either place, so no delivery can
  // make one of the old name after the move.
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) == 0) return;
  if (errno != EINVAL) throwFilesystemError("rename", from, errno);
  // A file system without the exchange: move over the hold, then hold the
  // old place again at once.
  fs::rename(from, to);
  holdDomainDirectory(oldDomain);
}

void createDomainDirectory(const PopUser& popUser, const std::string& domain) {
  ScopedUmask umask(kCreateUmask);
  const fs::path dir = domainDirectory(domain);
  fs::create_directories(dir);
  setOwnerAndMode(dir, kRootUid, popUser.gid, kDomainDirectoryMode);
}

void removeDomainDirectory(const PopUser&, const std::string& domain) {
  const fs::path dir = domainDirectory(domain);
  fs::path saved;
  try {
    if (!moveAside(dir, saved)) saved = dir;
  } catch (const fs::filesystem_error&) {
    // Could not move it out of the way: remove it where it is.
    saved = dir;
  }
  fs::remove_all(saved);
}

void saveDomainDirectory(const PopUser&, const std::string& domain) {
  saveDirectory(domainDirectory(domain));
}

void createMailboxDirectory(const PopUser& popUser, const std::string& domain,
                            const std::string& mailbox) {
  ScopedUmask umask(kCreateUmask);
  const fs::path dir = mailboxDirectory(domain, mailbox);
  fs::create_directories(dir);
  try {
    setOwnerAndMode(dir, popUser.uid, popUser.gid, kMailboxDirectoryMode);
    for (const char* name : kMailboxLayout) {
      const fs::path sub = dir / name;
      fs::create_directory(sub);
      setOwnerAndMode(sub, popUser.uid, popUser.gid, kMailboxDirectoryMode);
    }
  } catch (...) {
    // A half-made mailbox must not stay behind; the caller wants to know
    // why it failed, not why the clean-up failed, so the clean-up's own
    // error is dropped and errno is put back.
    {
      ErrnoSaver keep;
      boost::system::error_code ignored;
      fs::remove_all(dir, ignored);
    }
    throw;
  }
}

void removeMailboxDirectory(const PopUser&, const std::string& domain, const std::string& mailbox) {
  fs::remove_all(mailboxDirectory(domain, mailbox));
}

void saveMailboxDirectory(const PopUser&, const std::string& domain, const std::string& mailbox) {
  saveDirectory(mailboxDirectory(domain, mailbox));
}

void renameMailboxDirectory(const PopUser&, const std::string& domain,
                            const std::string& oldMailbox, const std::string& newMailbox) {
  fs::rename(mailboxDirectory(domain, oldMailbox), mailboxDirectory(domain, newMailbox));
}

void disposeDomainDirectory(const PopUser& popUser, const std::string& domain, int disposal) {
  if (disposal == kRemoveDirectory)
    removeDomainDirectory(popUser, domain);
  else if (disposal == kSaveDirectory)
    saveDomainDirectory(popUser, domain);
}

void disposeMailboxDirectory(const PopUser& popUser, const std::string& domain,
                             const std::string& mailbox, int disposal) {
  switch (disposal) {
    case kRemoveDirectory:
      removeMailboxDirectory(popUser, domain, mailbox);
      // Falls through on purpose: the save then finds nothing to move,
      // which moveAside treats as success.
      [[fallthrough]];
    case kSaveDirectory:
      saveMailboxDirectory(popUser, domain, mailbox);
      break;
    default:
      break;
  }
}

}  // namespace postfix
}  // namespace mail
}  // namespace zanth

zanth::UniqueCString mail_domain_ascii(const char* domain) {
  idn_last_error = 0;
  zanth::UniqueCString ascii(idn_toascii(domain));
  if (!ascii)
    report_condition(0, "idn_toascii(%s) failed: %s", domain, idn_strerror(idn_last_error));
  return ascii;
}

int mailbox_path(char* buf, size_t size, const char* domain, const char* mailbox,
                 const char* suffix) {
  const zanth::UniqueCString ascii = mail_domain_ascii(domain);
  if (!ascii) return -1;
  if (!zanth::mail::postfix::format_mailbox_path(buf, size, ascii.get(), mailbox, suffix)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  return 0;
}
