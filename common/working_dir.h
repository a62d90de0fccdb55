// The process's working directory as scoped state: code that works inside
// a mailbox with relative names saves the directory it was called in and
// goes back there on every path out. Header-only; reports nothing.
#ifndef MXKEEP_COMMON_WORKING_DIR_H
#define MXKEEP_COMMON_WORKING_DIR_H

#include <unistd.h>

#include <cerrno>

#include "common/syscall.h"

namespace zanth {

// Saves the working directory (getcwd into a kPathMax buffer) and changes
// back to it on destruction, errno preserved, unless keep() was called.
// When saving fails (saved() false, errno set) nothing is restored.
//
//   WorkingDirectoryGuard cwd;
//   if (!cwd.saved()) return fail();
//   if (chdir(mailbox) != 0) return fail();   // back where we started
class WorkingDirectoryGuard final {
 public:
  WorkingDirectoryGuard() : saved_(::getcwd(path_, sizeof path_) != nullptr) {}
  ~WorkingDirectoryGuard() {
    if (!saved_) return;
    ErrnoSaver keep;
    // A directory that cannot be re-entered leaves the caller where the
    // work was done; there is no one to tell from here.
    (void)retryEintr([&] { return ::chdir(path_); });
  }
  WorkingDirectoryGuard(const WorkingDirectoryGuard&) = delete;
  WorkingDirectoryGuard& operator=(const WorkingDirectoryGuard&) = delete;

  bool saved() const { return saved_; }
  // keep - stay in the current directory when the guard ends.
  void keep() { saved_ = false; }

 private:
  char path_[kPathMax];
  bool saved_;
};

}  // namespace zanth

#endif  // MXKEEP_COMMON_WORKING_DIR_H
