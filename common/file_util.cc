// File and directory helpers. Procedural: results by return value, one
// report at the point of failure, no exceptions. System calls that a signal
// may interrupt are repeated through retryEintr.
#include "common/file_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/chars.h"
#include "common/errors.h"
#include "common/syscall.h"

namespace {

constexpr mode_t kDirMode = 0755;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kPermissionBits = 0777;
// Read size of read_first_line, doubled while the first line goes on.
constexpr size_t kLineChunk = 512;
constexpr const char* kTruncateMessage = "Unable to truncate or create file %s: %s";

// ensure_dir - make sure the directory path exists; 1 or 0 with errno.
int ensure_dir(const char* path) {
  struct stat st;
  if (zanth::retryEintr([&] { return stat(path, &st); }) == 0) {
    if (S_ISDIR(st.st_mode)) return 1;
    errno = ENOTDIR;
    return 0;
  }
  if (errno != ENOENT) return 0;
  return zanth::retryEintr([&] { return mkdir(path, kDirMode); }) == 0;
}

// own_new_dir - give a directory just made to uid:gid; a failure is
// reported and passed over.
void own_new_dir(const char* path, uid_t uid, gid_t gid) {
  if (zanth::retryEintr([&] { return chown(path, uid, gid); }) != 0)
    report_error(kReportAndGoOn, kReportFlagSet, "Cannot chown %s: %s", path, std::strerror(errno));
}

// failed - reports a failure of the tree helpers as an error the caller
// goes on from (it fails its own operation); always false.
bool failed(const char* format, const char* name) {
  report_error(kReportAndGoOn, kReportFlag, format, name, std::strerror(errno));
  return false;
}

// make_owned_level - the recursion of make_dirs_owned over a private copy
// of the path, cut short in place at each level; false once reported.
bool make_owned_level(char* path, uid_t uid, gid_t gid, mode_t mode) {
  char* slash = std::strrchr(path, '/');
  if (slash != nullptr && slash != path) {
    *slash = '\0';
    const bool made = make_owned_level(path, uid, gid, mode & kPermissionBits);
    *slash = '/';
    if (!made) return false;
  }
  if (zanth::retryEintr([&] { return mkdir(path, mode); }) != 0) {
    if (errno == EEXIST) return true;
    return failed("Cannot create directory %s: %s", path);
  }
  own_new_dir(path, uid, gid);
  return true;
}

// open_empty - name, relative to dir, opened for writing as an empty or
// kept file (mode 0644 when new); its descriptor, or -1 reported with
// message naming it path.
int open_empty(int dir, const char* name, const char* path, int extra_flags,
               const char* message) {
  int fd = zanth::retryEintr([&] {
    return openat(dir, name, O_WRONLY | O_CREAT | O_CLOEXEC | extra_flags, kFileMode);
  });
  if (fd < 0) report_error(kReportAndGoOn, kReportFlag, message, path, std::strerror(errno));
  return fd;
}

int create_empty(const char* path, int extra_flags, const char* message) {
  // Nothing is written, so the owner's close cannot lose data.
  const zanth::UniqueFd fd(open_empty(AT_FDCWD, path, path, extra_flags, message));
  return fd.get() < 0 ? -1 : 0;
}

// unlink_tolerant - unlink name in the directory dir; a vanished entry is
// fine, else it fails.
bool unlink_tolerant(int dir, const char* name, const char* format) {
  if (zanth::retryEintr([&] { return unlinkat(dir, name, 0); }) != 0 && errno != ENOENT)
    return failed(format, name);
  return true;
}

bool remove_subdir(int parent, const char* name);

// empty_dir - remove every entry of the directory listed by dir. Entries
// are named relative to it, so that deep trees never need long paths; the
// type the listing gives spares a stat of each entry.
bool empty_dir(DIR* dir) {
  const int fd = dirfd(dir);
  for (struct dirent* entry; (entry = readdir(dir)) != nullptr;) {
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    bool is_dir = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat st;
      if (zanth::retryEintr([&] { return fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW); }) != 0) {
        if (errno == ENOENT) continue;
        return failed("Unable to check directory entry %s: %s\n", name);
      }
      is_dir = S_ISDIR(st.st_mode);
    }
    const bool removed = is_dir ? remove_subdir(fd, name)
                                : unlink_tolerant(fd, name, "Unable to unlink directory entry %s: %s\n");
    if (!removed) return false;
  }
  return true;
}

// clear_dir - empty the directory listed by dir, named name in messages,
// and close it; a null dir is a failure to open it, errno saying why.
bool clear_dir(DIR* dir, const char* name) {
  if (dir == nullptr) return failed("Unable to open dir %s: %s\n", name);
  const bool emptied = empty_dir(dir);
  if (closedir(dir) != 0 && emptied) return failed("Unable to close dir %s: %s\n", name);
  return emptied;
}

// remove_empty_dir - remove the directory name in dir; a vanished one is
// fine, else it fails.
bool remove_empty_dir(int dir, const char* name) {
  if (zanth::retryEintr([&] { return unlinkat(dir, name, AT_REMOVEDIR); }) != 0 && errno != ENOENT)
    return failed("Unable to remove dir %s: %s\n", name);
  return true;
}

// remove_subdir - remove the directory name in parent and all under it.
bool remove_subdir(int parent, const char* name) {
  DIR* dir = zanth::openDirAt(parent, name, O_NOFOLLOW | O_NONBLOCK);
  if (dir == nullptr) {
    if (errno == ENOENT) return true;
    // Replaced by a file or a link since it was listed: that goes too.
    if (errno == ENOTDIR || errno == ELOOP)
      return unlink_tolerant(parent, name, "Unable to unlink entry %s: %s\n");
  }
  return clear_dir(dir, name) && remove_empty_dir(parent, name);
}

}  // namespace

int make_dirs(const char* path) {
  char* copy = strdup(path);
  if (copy == nullptr) return 0;
  int ok = 1;
  for (char* slash = copy; ok && (slash = std::strchr(slash, '/')) != nullptr; ++slash) {
    if (slash == copy) continue;  // the root is there
    *slash = '\0';
    ok = ensure_dir(copy);
    *slash = '/';
  }
  if (ok) ok = ensure_dir(copy);
  zanth::ErrnoSaver keep;
  std::free(copy);
  return ok;
}

int make_dirs_owned(const char* path, uid_t uid, gid_t gid, mode_t mode) {
  // The parents are usually there already: one mkdir then settles it. Any
  // other outcome takes the walk from the top, which reports the first
  // level that cannot be made.
  if (zanth::retryEintr([&] { return mkdir(path, mode); }) == 0) {
    own_new_dir(path, uid, gid);
    return 0;
  }
  if (errno == EEXIST) return 0;
  char* copy = strdup(path);
  if (copy == nullptr) {
    failed("Cannot create directory %s: %s", path);
    return -1;
  }
  const bool made = make_owned_level(copy, uid, gid, mode);
  std::free(copy);
  return made ? 0 : -1;
}

int create_truncate_file(const char* path) {
  return create_empty(path, O_TRUNC, kTruncateMessage);
}

int open_truncate_file_at(int dir, const char* name, const char* path) {
  return open_empty(dir, name, path, O_TRUNC, kTruncateMessage);
}

int create_file(const char* path) {
  return create_empty(path, 0, "Unable to create file %s: %s");
}

int read_first_line(char* buffer, size_t size, const char* path) {
  // Neither a link nor anything but a regular file is read: a link may
  // point anywhere, and a FIFO or a device would block.
  zanth::UniqueFd fd(zanth::retryEintr(
      [&] { return open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC); }));
  if (fd.get() < 0) {
    report_error(kReportAndGoOn, kReportFlag, "Unable to open file %s: %s\n", path,
                 std::strerror(errno));
    return -1;
  }
  if (!zanth::isRegularFile(fd.get())) {
    report_error(kReportAndGoOn, kReportFlag, "Unable to open file %s: not a regular file\n", path);
    return -1;
  }
  // The whole first line is read, however long: the white space around it
  // may be what does not fit. Most lines fit the first chunk.
  char chunk[kLineChunk];
  char* line = chunk;
  size_t capacity = sizeof chunk, length = 0;
  auto release = [&] {
    if (line != chunk) std::free(line);
  };
  for (;;) {
    if (length == capacity) {
      char* grown = static_cast<char*>(std::malloc(2 * capacity));
      if (grown == nullptr) {
        release();
        report_error(kReportAndGoOn, kReportFlag, "Unable to read line from file: %s\n", path);
        return -1;
      }
      std::memcpy(grown, line, length);
      release();
      line = grown;
      capacity *= 2;
    }
    ssize_t n = zanth::retryEintr([&] { return read(fd.get(), line + length, capacity - length); });
    if (n < 0) {
      release();
      report_error(kReportAndGoOn, kReportFlag, "Unable to read line from file: %s\n", path);
      return -1;
    }
    if (n == 0) break;
    const size_t got = static_cast<size_t>(n);
    const char* newline = static_cast<const char*>(std::memchr(line + length, '\n', got));
    length += got;
    if (newline != nullptr) {
      length = static_cast<size_t>(newline - line) + 1;
      break;
    }
  }
  fd.reset();
  if (length == 0) {
    std::memset(buffer, 0, size);
    return 0;
  }

  char* start = line;
  char* end = line + length;
  while (end > start && zanth::isPosixSpace(end[-1])) --end;
  while (start < end && zanth::isPosixSpace(*start)) ++start;
  size_t trimmed = static_cast<size_t>(end - start);
  if (trimmed >= size) {
    release();
    return report_condition(0, "The buffer too short\n");
  }
  std::memcpy(buffer, start, trimmed);
  buffer[trimmed] = '\0';
  release();
  return 0;
}

int remove_tree(const char* path, int remove_top) {
  struct stat st;
  if (zanth::retryEintr([&] { return lstat(path, &st); }) != 0) {
    if (errno == ENOENT) return 0;
    failed("Unable to check directory entry %s: %s\n", path);
    return -1;
  }
  bool removed;
  if (S_ISLNK(st.st_mode) || S_ISREG(st.st_mode))
    removed = unlink_tolerant(AT_FDCWD, path, "Unable to unlink entry %s: %s\n");
  else  // everything else is taken for a directory
    removed = clear_dir(opendir(path), path) && (!remove_top || remove_empty_dir(AT_FDCWD, path));
  return removed ? 0 : -1;
}

int open_unshared(const char* path, struct stat* st) {
  zanth::UniqueFd fd(zanth::retryEintr(
      [&] { return open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
  if (fd.get() < 0 || fstat(fd.get(), st) != 0) return -1;
  if (S_ISREG(st->st_mode) && st->st_nlink > 1) {
    errno = EMLINK;
    return -1;
  }
  return fd.release();
}

int set_owner_by_name(const char* path, const char* user, mode_t mode) {
  errno = 0;
  const struct passwd* pw = getpwnam(user);
  if (pw == nullptr) {
    report_error(kReportAndGoOn, kReportFlag, "user %s not found", user);
    return -1;
  }
  struct stat st;
  zanth::UniqueFd fd(open_unshared(path, &st));
  if (fd.get() < 0 ||
      zanth::retryEintr([&] { return fchown(fd.get(), pw->pw_uid, pw->pw_gid); }) != 0) {
    report_error(kReportAndGoOn, kReportFlag, "ERROR: unable to chown %s: %s\n", path,
                 std::strerror(errno));
    return -1;
  }
  if (zanth::retryEintr([&] { return fchmod(fd.get(), mode); }) != 0) {
    report_error(kReportAndGoOn, kReportFlag, "ERROR: unable to chmod %s: %s\n", path,
                 std::strerror(errno));
    return -1;
  }
  return 0;
}

owner_mode_step set_owner_and_mode(const char* path, uid_t uid, gid_t gid, mode_t mode) {
  if (zanth::retryEintr([&] { return chown(path, uid, gid); }) != 0) return OWNER_MODE_CHOWN_FAILED;
  if (zanth::retryEintr([&] { return chmod(path, mode); }) != 0) return OWNER_MODE_CHMOD_FAILED;
  return OWNER_MODE_SET;
}

int open_standard_descriptors() {
  for (int fd = 0; fd < 3; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    // The lowest free descriptor is the closed one.
    int opened = zanth::retryEintr([] { return open("/dev/null", O_RDWR); });
    if (opened != fd) {
      if (opened >= 0) close(opened);
      return -1;
    }
  }
  return 0;
}
