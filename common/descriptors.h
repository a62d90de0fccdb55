// Small descriptor routines used wherever the code writes, closes or hands
// descriptors to a child: the full-write loop, the non-blocking switch, the
// close that counts EINTR as done, and the close of every descriptor from a
// number up. Header-only, so rename plugins can use it without the library.
// The procedural forms return 0 / -1 with errno; closeOrThrow throws.
#ifndef MXKEEP_COMMON_DESCRIPTORS_H
#define MXKEEP_COMMON_DESCRIPTORS_H

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>

#include "common/errors.h"
#include "common/syscall.h"

namespace zanth {

// writeFully - write all `length` bytes, retrying EINTR and short writes;
// 0, or -1 with errno from the failing write.
inline int writeFully(int fd, const void* data, size_t length) {
  const char* next = static_cast<const char*>(data);
  while (length > 0) {
    const ssize_t n = retryEintr([&] { return ::write(fd, next, length); });
    if (n < 0) return -1;
    next += n;
    length -= static_cast<size_t>(n);
  }
  return 0;
}

// setNonBlocking - add O_NONBLOCK to the descriptor's status flags;
// 0, or -1 with errno from fcntl.
inline int setNonBlocking(int fd) {
  const int flags = retryEintr([&] { return ::fcntl(fd, F_GETFL); });
  if (flags == -1) return -1;
  return retryEintr([&] { return ::fcntl(fd, F_SETFL, flags | O_NONBLOCK); }) == -1 ? -1 : 0;
}

// closeDescriptor - close fd; 0, or -1 with errno. Linux releases the
// descriptor even when close fails with EINTR, so that one counts as done
// and is never retried (a retry could close a descriptor opened meanwhile).
inline int closeDescriptor(int fd) {
  return ::close(fd) != 0 && errno != EINTR ? -1 : 0;
}

// closeOrThrow - close fd unless it is negative and mark it closed (-1);
// a failure throws SystemError(message).
inline void closeOrThrow(int& fd, const char* message) {
  if (fd < 0) return;
  const int closing = fd;
  fd = -1;
  if (closeDescriptor(closing) != 0) throw SystemError(message);
}

inline void closeOrThrow(UniqueFd& owned, const char* message) {
  int fd = owned.release();
  closeOrThrow(fd, message);
}

// closeFrom - close every descriptor from `first` up, except `keep` when it
// is one of them (pass -1 to keep none). For a child just before exec:
// errors are ignored, as there is nobody to tell.
inline void closeFrom(int first, int keep = -1) {
  auto closeRange = [](unsigned from, unsigned to) {  // both included
    if (from > to || ::close_range(from, to, 0) == 0) return;
    struct rlimit limit {};
    const unsigned top = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < INT_MAX
                             ? static_cast<unsigned>(limit.rlim_cur)
                             : static_cast<unsigned>(::getdtablesize());
    for (unsigned fd = from; fd < top && fd <= to; ++fd) ::close(static_cast<int>(fd));
  };
  if (first < 0) first = 0;
  if (keep >= first) {
    if (keep > first) closeRange(static_cast<unsigned>(first), static_cast<unsigned>(keep) - 1);
    closeRange(static_cast<unsigned>(keep) + 1, ~0U);
  } else {
    closeRange(static_cast<unsigned>(first), ~0U);
  }
}

}  // namespace zanth

#endif  // MXKEEP_COMMON_DESCRIPTORS_H
