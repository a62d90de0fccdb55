// Small shared helpers for system calls: the EINTR retry loop, path
// formatting into fixed 4096-byte buffers, the errno saver, owners for
// descriptors and for FILE*, DIR*, popen, dlopen and malloc'ed handles, and
// directory streams opened relative to a directory. Header-only; nothing
// here reports by itself.
#ifndef MXKEEP_COMMON_SYSCALL_H
#define MXKEEP_COMMON_SYSCALL_H

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace zanth {

// Size of every path buffer of the procedural code.
constexpr size_t kPathMax = 4096;

// retryEintr - call f() again while it fails with -1 and errno EINTR.
template <class F>
auto retryEintr(F f) -> decltype(f()) {
  decltype(f()) result;
  do {
    result = f();
  } while (result == -1 && errno == EINTR);
  return result;
}

// isRegularFile - the open descriptor fd is a regular file.
inline bool isRegularFile(int fd) {
  struct stat st;
  return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

// formatted - the printf text of format and args, whatever its length.
inline std::string formatted(const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(&text[0], text.size() + 1, format, again);
  va_end(again);
  return text;
}

// path_format - format into buf; false when the text is empty or does not
// fit (it is never cut short silently: callers report their own message).
bool path_format(char* buf, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

inline bool path_format(char* buf, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = std::vsnprintf(buf, size, format, args);
  va_end(args);
  return n > 0 && static_cast<size_t>(n) < size;
}

// Puts errno back to its value at construction when the scope ends, so
// that clean-up (a close, an unlink, a log line) leaves the caller the
// first cause:
//
//   ErrnoSaver keep;
//   ::close(fd);   // errno is the failure being reported, not close's
class ErrnoSaver final {
 public:
  ErrnoSaver() noexcept : saved_(errno) {}
  ~ErrnoSaver() { errno = saved_; }
  ErrnoSaver(const ErrnoSaver&) = delete;
  ErrnoSaver& operator=(const ErrnoSaver&) = delete;

  // The errno value kept.
  int value() const noexcept { return saved_; }

 private:
  const int saved_;
};

// Owns an open descriptor; closes it on destruction (a close error there has
// nobody to report to and is ignored). errno is preserved.
class UniqueFd final {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      ErrnoSaver keep;
      ::close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Owns a pointer handed out by a C library and gives it back with Release
// on destruction. What Release returns is ignored: at that point there is
// nobody to tell, and errno stays what it was. Callers that want the result
// (pclose's exit status, fclose after writing) release() and call it
// themselves.
//
//   UniqueFile file(std::fopen(path, "re"));
//   if (!file) return -1;
template <class T, auto Release>
class UniqueHandle final {
 public:
  explicit UniqueHandle(T* handle = nullptr) noexcept : handle_(handle) {}
  UniqueHandle(UniqueHandle&& other) noexcept : handle_(other.release()) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueHandle(const UniqueHandle&) = delete;
  UniqueHandle& operator=(const UniqueHandle&) = delete;
  ~UniqueHandle() { reset(); }

  T* get() const noexcept { return handle_; }
  explicit operator bool() const noexcept { return handle_ != nullptr; }
  T* release() noexcept {
    T* handle = handle_;
    handle_ = nullptr;
    return handle;
  }
  void reset(T* handle = nullptr) noexcept {
    if (handle_ != nullptr) {
      ErrnoSaver keep;
      (void)Release(handle_);
    }
    handle_ = handle;
  }

 private:
  T* handle_;
};

using UniqueFile = UniqueHandle<FILE, std::fclose>;         // fopen, fdopen
using UniquePipeStream = UniqueHandle<FILE, ::pclose>;      // popen
using UniqueDir = UniqueHandle<DIR, ::closedir>;            // opendir, fdopendir
using UniqueLibrary = UniqueHandle<void, ::dlclose>;        // dlopen
using UniqueCString = UniqueHandle<char, std::free>;        // malloc, strdup, getline

// openDirAt - a stream over the directory name in parent (AT_FDCWD: the
// working directory), opened with extra_flags added (O_NOFOLLOW where a
// link must not be entered); null with errno from the open or fdopendir.
inline DIR* openDirAt(int parent, const char* name, int extra_flags = 0) {
  UniqueFd fd(retryEintr(
      [&] { return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | extra_flags); }));
  if (fd.get() < 0) return nullptr;
  DIR* dir = ::fdopendir(fd.get());
  if (dir != nullptr) fd.release();
  return dir;
}

}  // namespace zanth

#endif  // MXKEEP_COMMON_SYSCALL_H
