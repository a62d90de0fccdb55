// Quota file format: the Maildir++ "maildirsize" file written inside the
// Maildir with relative names (the temporary file sits in its tmp/ like any
// delivery), synced and renamed into place, and backdated when mail arrived
// during the count. Procedural: 1 / 0 with errno, reported through
// report_error (never fatal).
#include "mail/postfix/maildirsize_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "common/accounts.h"
#include "common/descriptors.h"
#include "common/errors.h"
#include "common/maildir_walk.h"
#include "common/syscall.h"
#include "common/temp_file.h"
#include "common/working_dir.h"

namespace {

constexpr mode_t kMaildirsizeMode = 0644;
constexpr const char* kMaildirsizeName = "maildirsize";
constexpr const char* kPopUserName = "popuser";
constexpr int kTmpAttempts = 5;
constexpr unsigned kTmpRetrySeconds = 2;
// gethostname's buffer; a longer name is cut and fails the name format.
constexpr size_t kHostNameSize = 256;
// The formatted file must stay below this many bytes.
constexpr size_t kMaxFileText = 100;
// A file dated this far back looks older than the readers' 15 minutes.
constexpr time_t kBackdateSeconds = 960;

void sleep_fully(unsigned seconds) {
  while ((seconds = ::sleep(seconds)) > 0) {
  }
}

// lose_tmp - forget a half-made temporary file: close, unlink, errno 0.
void lose_tmp(zanth::UniqueFd& fd, const char* name) {
  fd.reset();
  ::unlink(name);
  errno = 0;
}

// write_quota_file - everything between opening the temporary file and
// renaming it: owner, count, text, write, sync. 0 / -1 with errno.
int write_quota_file(zanth::TempFile& tmp, uid_t uid, gid_t gid, long long quota_bytes,
                     unsigned long long quota_count, time_t* newest) {
  if (::fchown(tmp.fd(), uid, gid) != 0) return -1;
  maildir_usage usage;
  if (maildir_count_usage(".", &usage) != 0) return -1;
  *newest = usage.newest_mtime;
  char text[kMaxFileText];
  const int n = std::snprintf(text, sizeof text, "%lldS,%lluC\n%12lld%12llu\n", quota_bytes,
                              quota_count, usage.bytes, usage.messages);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof text) {
    errno = EINVAL;
    return -1;
  }
  if (zanth::writeFully(tmp.fd(), text, static_cast<size_t>(n)) != 0) {
    report_error(kReportAndGoOn, kReportFlag, "unable to write data to file");
    return -1;
  }
  if (tmp.sync() != 0) {
    report_error(kReportAndGoOn, kReportFlag, "unable to commit written data to file");
    return -1;
  }
  return 0;
}

}  // namespace

long long maildirsize_quota_to_write(long long quota) {
  if (quota < 0) return 0;
  return quota == 0 ? 1 : quota;
}

int maildirsize_open_tmp(char* buffer, size_t size) {
  char host[kHostNameSize];
  if (::gethostname(host, sizeof host) != 0) {
    report_error(kReportAndGoOn, kReportFlag, "Unable to receive hostname");
    return -1;
  }
  host[sizeof host - 1] = '\0';
  for (int attempt = 0; attempt < kTmpAttempts; ++attempt) {
    if (!zanth::path_format(buffer, size, "tmp/%lu.%u.%s-maildirsize",
                            static_cast<unsigned long>(std::time(nullptr)),
                            static_cast<unsigned>(::getpid()), host)) {
      errno = ENAMETOOLONG;
      report_error(kReportAndGoOn, kReportFlag, "host name is too long to be used in filename");
      return -1;
    }
    // Only a new file is opened: the mail user owns tmp/ and may plant a
    // link at the name, whose target root would otherwise create. A link
    // found there is removed (the link, never its target) and the attempt
    // counted.
    zanth::UniqueFd fd(zanth::retryEintr([&] {
      return ::open(buffer, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMaildirsizeMode);
    }));
    struct stat by_fd, by_name;
    if (fd.get() >= 0) {
      // The name may still be swapped under us before it is renamed.
      if (::fstat(fd.get(), &by_fd) == 0 && ::lstat(buffer, &by_name) == 0 &&
          by_fd.st_dev == by_name.st_dev && by_fd.st_ino == by_name.st_ino)
        return fd.release();
      lose_tmp(fd, buffer);
    } else if (errno == EEXIST && ::lstat(buffer, &by_name) == 0 && S_ISLNK(by_name.st_mode)) {
      ::unlink(buffer);
    }
    sleep_fully(kTmpRetrySeconds);
  }
  errno = EAGAIN;
  report_error(kReportAndGoOn, kReportFlag,
               "Maximal allowed number of attempts to create a maildirsize file exceeded");
  return -1;
}

int maildirsize_create(const char* maildir, uid_t uid, gid_t gid, long long quota_bytes,
                       unsigned long long quota_count) {
  zanth::WorkingDirectoryGuard cwd;
  if (!cwd.saved() || zanth::retryEintr([&] { return ::chdir(maildir); }) != 0) return 0;
  char name[zanth::kPathMax];
  zanth::TempFile tmp(maildirsize_open_tmp(name, sizeof name), name);
  if (tmp.fd() < 0) return 0;
  time_t counted_newest = 0;
  if (write_quota_file(tmp, uid, gid, quota_bytes, quota_count, &counted_newest) != 0 ||
      tmp.renameTo(kMaildirsizeName) != 0)
    return 0;
  cwd.keep();

  time_t newest = 0;
  if (maildir_newest_folder_mtime(".", &newest) == 0 && newest <= counted_newest) return 1;
  // Mail arrived (or the folders could not be checked) after the count:
  // make the file look stale so that the next reader counts again.
  const struct utimbuf times = {std::time(nullptr), counted_newest - kBackdateSeconds};
  ::utime(kMaildirsizeName, &times);
  errno = 0;
  return 1;
}

int maildirsize_create_popuser(const char* maildir, long long quota) {
  uid_t uid;
  gid_t gid;
  if (account_ids(kPopUserName, &uid, &gid) != 0) return 0;
  return maildirsize_create(maildir, uid, gid, maildirsize_quota_to_write(quota), 0);
}
