// Line-file editor. Never throws and reports nothing itself (a lock file
// that cannot be opened is reported by lock_file_wait): callers know which
// file they edit for what and word the message themselves.
#include "process/file_str.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/descriptors.h"
#include "common/file_util.h"
#include "process/lock.h"

namespace {

constexpr mode_t kTemporaryMode = 0600;
constexpr mode_t kModeBits = 07777;

std::string_view withoutLineFeed(std::string_view s) {
  if (!s.empty() && s.back() == '\n') s.remove_suffix(1);
  return s;
}

// isOneLine - text names a line: not null, no line feed before its end.
bool isOneLine(const char* text) {
  return text != nullptr && withoutLineFeed(text).find('\n') == std::string_view::npos;
}

// openOriginal - the file to copy from, opened for reading without
// following a link and only when it is a plain file with one name: the
// copy is given the original's owner, so any other object at the path
// (a link planted there, a device, another file's hard link) must not be
// read into it. -1 with errno; st filled on success.
int openOriginal(const char* path, struct stat* st) {
  zanth::UniqueFd fd(open_unshared(path, st));
  if (fd.get() >= 0 && !S_ISREG(st->st_mode)) {
    errno = EINVAL;
    return -1;
  }
  return fd.release();
}

// copyLines - copy in to out, leaving out the lines that match one of the
// remove texts; *ends_line tells whether what was written ends a line.
bool copyLines(FILE* in, zanth::ReplacementFile& out, const char* const* remove, size_t count,
               bool* ends_line) {
  char* line = nullptr;
  size_t capacity = 0;
  bool ok = true;
  *ends_line = true;
  errno = 0;
  for (ssize_t n; ok && (n = ::getline(&line, &capacity, in)) >= 0;) {
    std::string_view text(line, static_cast<size_t>(n));
    bool dropped = false;
    for (size_t i = 0; i < count && !dropped; ++i) dropped = file_str_line_matches(text, remove[i]);
    if (dropped) continue;
    ok = out.write(text);
    *ends_line = text.back() == '\n';
  }
  if (ok && std::ferror(in)) ok = false;
  zanth::ErrnoSaver keep;
  std::free(line);
  return ok;
}

}  // namespace

bool file_str_line_matches(std::string_view line, std::string_view text) {
  return withoutLineFeed(line) == withoutLineFeed(text);
}

int file_str(const char* path, const char* text, file_str_action action) {
  if (action == FILE_STR_ADD) return file_str_edit(path, nullptr, 0, text);
  return file_str_edit(path, &text, 1, nullptr);
}

int file_str_edit(const char* path, const char* const* remove, size_t count, const char* add) {
  for (size_t i = 0; i < count; ++i)
    if (!isOneLine(remove[i])) {
      errno = EINVAL;
      return -1;
    }
  if (add != nullptr && !isOneLine(add)) {
    errno = EINVAL;
    return -1;
  }

  zanth::ReplacementFile next(path);
  if (!next.open()) return -1;

  struct stat st;
  zanth::UniqueFd fd(openOriginal(path, &st));
  if (fd.get() < 0 && (errno != ENOENT || add == nullptr)) return -1;

  const bool existed = fd.get() >= 0;
  bool ends_line = true;
  if (existed) {
    zanth::UniqueFile in(::fdopen(fd.get(), "r"));
    if (in.get() == nullptr) return -1;
    fd.release();
    if (!copyLines(in.get(), next, remove, count, &ends_line)) return -1;
  }
  if (add != nullptr) {
    std::string_view line(add);
    if ((!ends_line && !next.write("\n")) || !next.write(line) ||
        ((line.empty() || line.back() != '\n') && !next.write("\n")))
      return -1;
  }
  bool committed = existed ? next.commit(st.st_mode, st.st_uid, st.st_gid)
                           : next.commit(kTemporaryMode);
  return committed ? 0 : -1;
}

namespace zanth {

ReplacementFile::ReplacementFile(const char* path)
    : named_(path_format(path_, sizeof path_, "%s", path) &&
             path_format(tmp_, sizeof tmp_, "%s.tmp", path)) {}

ReplacementFile::~ReplacementFile() {
  discard();
  lock_file_release(lock_);
}

bool ReplacementFile::open() {
  if (!named_) {
    errno = ENAMETOOLONG;
    return false;
  }
  errno = 0;
  lock_ = lock_file_wait(path_, /*hashed=*/1);
  if (lock_ == nullptr || lock_->fd <= 0) return false;

  auto create = [&] {
    return retryEintr([&] {
      return ::open(tmp_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kTemporaryMode);
    });
  };
  // Under the lock nobody else writes the temporary name: whatever is
  // there was left by a crash or planted, and is removed, not followed.
  int fd = create();
  if (fd < 0 && errno == EEXIST && retryEintr([&] { return ::unlink(tmp_); }) == 0) fd = create();
  if (fd < 0) return false;
  file_.reset(fd, tmp_);
  return true;
}

bool ReplacementFile::write(std::string_view data) {
  if (file_.fd() < 0) {
    errno = EBADF;
    return false;
  }
  return writeFully(file_.fd(), data.data(), data.size()) == 0;
}

bool ReplacementFile::commit(mode_t mode, uid_t uid, gid_t gid) {
  const int fd = file_.fd();
  if (fd < 0) {
    errno = EBADF;
    return false;
  }
  if ((uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1)) &&
      ::fchown(fd, uid, gid) != 0)
    return false;
  if (::fchmod(fd, mode & kModeBits) != 0) return false;
  return file_.sync() == 0 && file_.renameTo(path_) == 0;
}

void ReplacementFile::discard() { file_.discard(); }

}  // namespace zanth
