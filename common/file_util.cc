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

#include "common/errors.h"
#include "common/syscall.h"

namespace {

constexpr mode_t kDirMode = 0755;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kPermissionBits = 0777;

// White space as the default POSIX locale has it, whatever locale is set.
bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

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

// make_owned_level - the recursion of make_dirs_owned over a private copy
// of the path, cut short in place at each level.
void make_owned_level(char* path, uid_t uid, gid_t gid, mode_t mode) {
  char* slash = std::strrchr(path, '/');
  if (slash != nullptr && slash != path) {
    *slash = '\0';
    make_owned_level(path, uid, gid, mode & kPermissionBits);
    *slash = '/';
  }
  if (zanth::retryEintr([&] { return mkdir(path, mode); }) != 0) {
    if (errno == EEXIST) return;
    report_fatal("Cannot create directory %s: %s", path, std::strerror(errno));
  }
  if (zanth::retryEintr([&] { return chown(path, uid, gid); }) != 0)
    report_error(0, 1, "Cannot chown %s: %s", path, std::strerror(errno));
}

int create_empty(const char* path, int extra_flags, const char* message) {
  // Nothing is written, so the owner's close cannot lose data.
  const zanth::UniqueFd fd(zanth::retryEintr(
      [&] { return open(path, O_WRONLY | O_CREAT | O_CLOEXEC | extra_flags, kFileMode); }));
  if (fd.get() < 0) {
    report_error(0, 0, message, path, std::strerror(errno));
    return -1;
  }
  return 0;
}

// unlink_tolerant - unlink path; a vanished entry is fine, else it fails.
void unlink_tolerant(const char* path, const char* format) {
  if (zanth::retryEintr([&] { return unlink(path); }) != 0 && errno != ENOENT)
    report_fatal(format, path, std::strerror(errno));
}

// empty_dir - remove every entry of the current directory, listed by dir.
void empty_dir(DIR* dir) {
  for (struct dirent* entry; (entry = readdir(dir)) != nullptr;) {
    const char* name = entry->d_name;
    struct stat st;
    if (zanth::retryEintr([&] { return lstat(name, &st); }) != 0) {
      if (errno == ENOENT) continue;
      report_fatal("Unable to check directory entry %s: %s\n", name, std::strerror(errno));
    }
    if (!S_ISDIR(st.st_mode)) {
      unlink_tolerant(name, "Unable to unlink directory entry %s: %s\n");
    } else if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) {
      remove_tree(name, 1);
    }
  }
}

// open_ownable - path opened for fchown and fchmod: not through a link,
// and not a regular file that has other names. -1 with errno otherwise.
int open_ownable(const char* path) {
  zanth::UniqueFd fd(zanth::retryEintr(
      [&] { return open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
  struct stat st;
  if (fd.get() < 0 || fstat(fd.get(), &st) != 0) return -1;
  if (S_ISREG(st.st_mode) && st.st_nlink > 1) {
    errno = EMLINK;
    return -1;
  }
  return fd.release();
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
  char* copy = strdup(path);
  if (copy == nullptr)
    report_fatal("Cannot create directory %s: %s", path, std::strerror(errno));
  make_owned_level(copy, uid, gid, mode);
  std::free(copy);
  return 0;
}

int create_truncate_file(const char* path) {
  return create_empty(path, O_TRUNC, "Unable to truncate or create file %s: %s");
}

int create_file(const char* path) {
  return create_empty(path, 0, "Unable to create file %s: %s");
}

int read_first_line(char* buffer, size_t size, const char* path) {
  zanth::UniqueFile file(std::fopen(path, "re"));
  if (file.get() == nullptr) {
    report_error(0, 0, "Unable to open file %s: %s\n", path, std::strerror(errno));
    return -1;
  }
  char* line = nullptr;
  size_t capacity = 0;
  errno = 0;
  ssize_t length = getdelim(&line, &capacity, '\n', file.get());
  if (length < 0) {
    std::free(line);
    if (std::feof(file.get())) {
      std::memset(buffer, 0, size);
      return 0;
    }
    report_error(0, 0, "Unable to read line from file: %s\n", path);
    return -1;
  }
  file.reset();

  char* start = line;
  char* end = line + length;
  while (end > start && is_space(end[-1])) --end;
  while (start < end && is_space(*start)) ++start;
  size_t trimmed = static_cast<size_t>(end - start);
  if (trimmed >= size) {
    std::free(line);
    errno = 0;  // a short buffer is no system error
    report_error(0, 0, "The buffer too short\n");
    return -1;
  }
  std::memcpy(buffer, start, trimmed);
  buffer[trimmed] = '\0';
  std::free(line);
  return 0;
}

void remove_tree(const char* path, int remove_top) {
  struct stat st;
  if (zanth::retryEintr([&] { return lstat(path, &st); }) != 0) {
    if (errno == ENOENT) return;
    report_fatal("Unable to check directory entry %s: %s\n", path, std::strerror(errno));
  }
  if (S_ISLNK(st.st_mode) || S_ISREG(st.st_mode)) {
    unlink_tolerant(path, "Unable to unlink entry %s: %s\n");
    return;
  }

  // Everything else is taken for a directory and emptied from inside it,
  // so that deep trees never need long paths.
  int saved_cwd = zanth::retryEintr([] { return open(".", O_RDONLY | O_NONBLOCK | O_CLOEXEC); });
  if (saved_cwd < 0)
    report_fatal("Unable to get file descriptor of current dir: %s\n", std::strerror(errno));
  DIR* dir = opendir(path);
  if (dir == nullptr) report_fatal("Unable to open dir %s: %s\n", path, std::strerror(errno));
  if (zanth::retryEintr([&] { return chdir(path); }) != 0)
    report_fatal("Unable to change dir %s: %s\n", path, std::strerror(errno));

  empty_dir(dir);

  if (zanth::retryEintr([&] { return fchdir(saved_cwd); }) != 0 || close(saved_cwd) != 0)
    report_fatal("Unable to restore & close current dir: %s\n", std::strerror(errno));
  if (closedir(dir) != 0)
    report_fatal("Unable to close dir %s: %s\n", path, std::strerror(errno));
  if (remove_top && zanth::retryEintr([&] { return rmdir(path); }) != 0 && errno != ENOENT)
    report_fatal("Unable to remove dir %s: %s\n", path, std::strerror(errno));
}

int set_owner_by_name(const char* path, const char* user, mode_t mode) {
  errno = 0;
  const struct passwd* pw = getpwnam(user);
  if (pw == nullptr) {
    report_error(0, 0, "user %s not found", user);
    return -1;
  }
  zanth::UniqueFd fd(open_ownable(path));
  if (fd.get() < 0 ||
      zanth::retryEintr([&] { return fchown(fd.get(), pw->pw_uid, pw->pw_gid); }) != 0) {
    report_error(0, 0, "ERROR: unable to chown %s: %s\n", path, std::strerror(errno));
    return -1;
  }
  if (zanth::retryEintr([&] { return fchmod(fd.get(), mode); }) != 0) {
    report_error(0, 0, "ERROR: unable to chmod %s: %s\n", path, std::strerror(errno));
    return -1;
  }
  return 0;
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
