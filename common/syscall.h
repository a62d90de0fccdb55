// Small shared helpers for system calls: the EINTR retry loop, path
// formatting into fixed 4096-byte buffers, and owners for descriptors,
// FILE* and DIR* handles. Header-only; nothing here reports by itself.
#ifndef MXKEEP_COMMON_SYSCALL_H
#define MXKEEP_COMMON_SYSCALL_H

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

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

// Owns an open descriptor; closes it on destruction (a close error there has
// nobody to report to and is ignored). errno is preserved.
class UniqueFd {
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
      int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Owns a FILE*; fclose on destruction, errno preserved.
class UniqueFile {
 public:
  explicit UniqueFile(FILE* f = nullptr) : f_(f) {}
  UniqueFile(const UniqueFile&) = delete;
  UniqueFile& operator=(const UniqueFile&) = delete;
  ~UniqueFile() { reset(); }
  FILE* get() const { return f_; }
  void reset(FILE* f = nullptr) {
    if (f_ != nullptr) {
      int saved = errno;
      std::fclose(f_);
      errno = saved;
    }
    f_ = f;
  }

 private:
  FILE* f_;
};

// Owns a DIR*; closedir on destruction, errno preserved.
class UniqueDir {
 public:
  explicit UniqueDir(DIR* d = nullptr) : d_(d) {}
  UniqueDir(const UniqueDir&) = delete;
  UniqueDir& operator=(const UniqueDir&) = delete;
  ~UniqueDir() { reset(); }
  DIR* get() const { return d_; }
  void reset(DIR* d = nullptr) {
    if (d_ != nullptr) {
      int saved = errno;
      ::closedir(d_);
      errno = saved;
    }
    d_ = d;
  }

 private:
  DIR* d_;
};

}  // namespace zanth

#endif  // MXKEEP_COMMON_SYSCALL_H
