// A file written under a temporary name and put in place of another by
// rename once its data is synced, so a reader sees the old file or the new
// one, never a part of one. The owner removes the temporary file on every
// path that does not end in the rename. Header-only, so rename plugins can
// use it without the library. 0 / -1 with errno; reports nothing.
#ifndef MXKEEP_COMMON_TEMP_FILE_H
#define MXKEEP_COMMON_TEMP_FILE_H

#include <unistd.h>

#include <cerrno>
#include <cstdio>  // rename

#include "common/descriptors.h"
#include "common/syscall.h"

namespace zanth {

// Owns a descriptor open for writing on a temporary name (the name's text
// stays the caller's and must outlive it). Not copyable.
//
//   TempFile next(::open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600), tmp);
//   if (next.fd() < 0 || writeFully(next.fd(), text, n) != 0 || next.sync() != 0 ||
//       next.renameTo(path) != 0)
//     ... errno says why; tmp is gone ...
class TempFile final {
 public:
  TempFile() = default;
  // fd -1 means nothing was created, so nothing is removed.
  TempFile(int fd, const char* name) { reset(fd, name); }
  ~TempFile() { discard(); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  // reset - discard the file held so far and take fd open on name.
  void reset(int fd, const char* name) {
    discard();
    fd_.reset(fd);
    name_ = fd >= 0 ? name : nullptr;
  }
  int fd() const { return fd_.get(); }

  // sync - put the data on disk and close the descriptor; a failing close
  // counts too, as some file systems report lost writes only there.
  int sync() {
    if (retryEintr([&] { return ::fsync(fd_.get()); }) != 0) return -1;
    return closeDescriptor(fd_.release());
  }

  // renameTo - put the file in path's place (after sync); from then on it
  // is no longer removed.
  int renameTo(const char* path) {
    if (name_ == nullptr) {
      errno = EBADF;
      return -1;
    }
    if (retryEintr([&] { return ::rename(name_, path); }) != 0) return -1;
    name_ = nullptr;
    return 0;
  }

  // discard - close and remove the temporary file now; errno is kept.
  void discard() {
    ErrnoSaver keep;
    fd_.reset();
    if (name_ != nullptr) ::unlink(name_);
    name_ = nullptr;
  }

 private:
  UniqueFd fd_;
  const char* name_ = nullptr;
};

}  // namespace zanth

#endif  // MXKEEP_COMMON_TEMP_FILE_H
