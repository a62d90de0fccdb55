// Lock files and utilities semaphores. The procedural functions report
// through report_error (the semaphore ones end the process with status 1);
// lock() and ScopedLock turn failures into exceptions.
#include "process/lock.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "common/errors.h"
#include "common/file_util.h"
#include "common/orb_conf.h"
#include "common/syscall.h"
#include "process/termination.h"

namespace {

constexpr mode_t kLockFileMode = 0644;
constexpr mode_t kSemFileMode = 0600;
constexpr char kSemFailed[] = "%s() failed for semnum %ld: %s";

// The semaphore file of this process, -1 while closed.
int g_sem_fd = -1;

// hashed_path - kLockFilesDir/<hex MD5 of name> into path; false on failure.
bool hashed_path(const char* name, char* path, size_t size) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(name, std::strlen(name), digest, &length, EVP_md5(), nullptr) != 1) return false;
  char hex[2 * EVP_MAX_MD_SIZE + 1];
  for (unsigned int i = 0; i < length; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
  hex[2 * length] = '\0';
  return zanth::path_format(path, size, "%s/%s", kLockFilesDir, hex);
}

// lock_file_path - the lock file of name: name itself, or its hashed path
// formed in buf. Null (errno ENOMEM) when that cannot be formed.
const char* lock_file_path(const char* name, int hashed, char* buf, size_t size) {
  if (!hashed) return name;
  if (hashed_path(name, buf, size)) return buf;
  errno = ENOMEM;
  return nullptr;
}

// move_above_standard - a lock never lives on descriptor 0, 1 or 2: 0
// would read as "held elsewhere" and never be released, and a diagnostic
// written to 1 or 2 would land in the lock file. false (fd closed, errno
// set) when no other descriptor can be had.
bool move_above_standard(int& fd) {
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  {
    zanth::ErrnoSaver keep;
    close(fd);
  }
  fd = moved;
  return moved >= 0;
}

// wait_for_flock - flock, retried on EINTR unless a termination signal
// came in meanwhile: a lock wait has no bound, and the one signal an
// admin has to stop a stuck tool must not be swallowed by it. Nothing has
// been changed under the lock yet, so giving up here is a clean failure.
int wait_for_flock(int fd, int operation) {
  const unsigned arrivals = zanth::process::terminationArrivals();
  for (;;) {
    if (flock(fd, operation) == 0) return 0;
    if (errno != EINTR || zanth::process::terminationArrivals() != arrivals) return -1;
  }
}

LockHandle* lock_file(const char* name, int hashed, int operation) {
  char hashed_name[zanth::kPathMax];
  const char* path = lock_file_path(name, hashed, hashed_name, sizeof hashed_name);
  if (path == nullptr) return nullptr;
  auto* handle = static_cast<LockHandle*>(std::calloc(1, sizeof(LockHandle)));
  if (handle != nullptr) handle->path = strdup(path);
  if (handle == nullptr || handle->path == nullptr) {
    std::free(handle);
    errno = ENOMEM;
    return nullptr;
  }

  handle->fd = zanth::retryEintr([&] {
    return open(handle->path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kLockFileMode);
  });
  if (handle->fd < 0) {
    zanth::ErrnoSaver keep;
    report_error(kReportAndGoOn, kReportFlag, "Unable to open file \"%s\": %s.", handle->path,
                 std::strerror(keep.value()));
    return handle;
  }
  if (handle->fd < 3 && !move_above_standard(handle->fd)) {
    handle->fd = -1;
    return handle;
  }
  if (wait_for_flock(handle->fd, operation) != 0) {
    zanth::ErrnoSaver keep;
    close(handle->fd);
    handle->fd = keep.value() == EAGAIN ? 0 : -1;
  }
  return handle;
}

void check_semnum(const char* function, long semnum) {
  if (semnum >= 0) return;
  errno = 0;  // not a system error
  report_fatal("%s() failed for semnum %ld: semnum must not be negative", function, semnum);
}

// sem_record - set one byte's record lock; fcntl's result.
int sem_record(long semnum, short type, int command) {
  struct flock record = {};
  record.l_type = type;
  record.l_whence = SEEK_SET;
  record.l_start = semnum;
  record.l_len = 1;
  record.l_pid = 0;
  return zanth::retryEintr([&] {
    errno = 0;
    return fcntl(g_sem_fd, command, &record);
  });
}

}  // namespace

LockHandle* lock_file_wait(const char* name, int hashed) {
  return lock_file(name, hashed, LOCK_EX);
}

LockHandle* lock_file_try(const char* name, int hashed) {
  return lock_file(name, hashed, LOCK_EX | LOCK_NB);
}

int lock_file_held(const char* name, int hashed) {
  char hashed_name[zanth::kPathMax];
  const char* path = lock_file_path(name, hashed, hashed_name, sizeof hashed_name);
  if (path == nullptr) return -1;
  zanth::UniqueFd fd(zanth::retryEintr([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
  if (fd.get() < 0) return errno == ENOENT ? 0 : -1;
  if (zanth::retryEintr([&] { return flock(fd.get(), LOCK_SH | LOCK_NB); }) == 0) return 0;
  return errno == EWOULDBLOCK ? 1 : -1;
}

void lock_file_release(LockHandle* handle) {
  if (handle == nullptr) return;
  if (handle->fd > 0) {
    // Closing drops the lock; an error here leaves nothing to undo.
    zanth::ErrnoSaver keep;
    close(handle->fd);
  }
  std::free(handle->path);
  std::free(handle);
}

void utilities_sem_init() {
  if (g_sem_fd >= 0) return;
  const char* root = orb_conf_get_default(PRODUCT_ROOT_D);
  char path[zanth::kPathMax];
  if (!zanth::path_format(path, sizeof path, "%s/var/utilities.sem", root)) {
    errno = 0;
    report_fatal("semaphore file path under %s is too long", root);
  }
  auto open_sem = [&] {
    return zanth::retryEintr([&] { return open(path, O_WRONLY | O_CREAT | O_CLOEXEC, kSemFileMode); });
  };
  int fd = open_sem();
  if (fd < 0 && errno == ENOENT) {
    char* slash = std::strrchr(path, '/');
    *slash = '\0';
    make_dirs(path);
    *slash = '/';
    fd = open_sem();
  }
  if (fd < 0)
    report_fatal("failed to open semaphore file %s: %s", path, std::strerror(errno));
  g_sem_fd = fd;
}

void sem_lock(long semnum) {
  check_semnum("sem_lock", semnum);
  if (sem_record(semnum, F_WRLCK, F_SETLKW) != 0)
    report_fatal(kSemFailed, "sem_lock", semnum, std::strerror(errno));
}

int sem_trylock(long semnum) {
  check_semnum("sem_trylock", semnum);
  if (sem_record(semnum, F_WRLCK, F_SETLK) == 0) return 0;
  if (errno == EACCES || errno == EAGAIN) return -1;
  report_fatal(kSemFailed, "sem_trylock", semnum, std::strerror(errno));
}

void sem_unlock(long semnum) {
  check_semnum("sem_unlock", semnum);
  if (sem_record(semnum, F_UNLCK, F_SETLK) != 0)
    report_fatal(kSemFailed, "sem_unlock", semnum, std::strerror(errno));
}

void shutdown_sem() {
  if (g_sem_fd < 0) return;
  int fd = g_sem_fd;
  g_sem_fd = -1;
  if (close(fd) != 0)
    report_fatal("shutdown_sem(): failed to close semaphore file: %s", std::strerror(errno));
}

namespace zanth {

namespace {

// hashedFlag - the procedural functions' hashed argument for a kind.
int hashedFlag(int kind) { return kind == kLockPath ? 0 : 1; }

}  // namespace

void lock(LockHandle*& handle, const std::string& name, int kind, int mode) {
  const int hashed = hashedFlag(kind);
  errno = 0;
  if (mode == kLockWait) {
    handle = lock_file_wait(name.c_str(), hashed);
  } else if (mode == kLockTry) {
    handle = lock_file_try(name.c_str(), hashed);
  } else if (handle == nullptr) {
    throw std::logic_error("lock(" + name + "): no handle to check");
  }
  if (handle == nullptr || handle->fd < 0) {
    // A wait ended by a termination signal fails as that signal.
    if (errno == EINTR) process::checkTermination();
    throwSystemError("lock() failed", errno);
  }
  if (mode == kLockTry && handle->fd == 0)
    throw std::runtime_error("lock(" + name + ") failed: file is already locked");
}

int lockHeld(const std::string& name, int kind) {
  return lock_file_held(name.c_str(), hashedFlag(kind));
}

ScopedLock::ScopedLock(const std::string& name, int kind, int mode) {
  // Releases a handle that lock() left behind with its exception.
  struct Pending {
    LockHandle* handle = nullptr;
    ~Pending() { lock_file_release(handle); }
  } pending;
  lock(pending.handle, name, kind, mode);
  handle_ = pending.handle;
  pending.handle = nullptr;
}

ScopedLock::~ScopedLock() { release(); }

void ScopedLock::release() {
  lock_file_release(handle_);
  handle_ = nullptr;
}

}  // namespace zanth
