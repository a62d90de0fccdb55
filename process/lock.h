// Cross-process exclusion: named lock files held with flock (procedural
// handles, and the class layer's lock() and ScopedLock, which throw), and
// the utilities semaphores, one-byte fcntl record locks on
// PRODUCT_ROOT_D/var/utilities.sem whose failures end the process. The
// rename takes lock files; the semaphores are kept for the control panel.
//
// Lock files are exclusive between open files, so two handles conflict
// even inside one process; semaphore bytes belong to the process and are
// never shared with its children.
#ifndef MXKEEP_PROCESS_LOCK_H
#define MXKEEP_PROCESS_LOCK_H

#include <string>

#include "common/fixed_paths.h"

// Directory of the hashed lock files; must exist (a tmpfiles.d entry makes
// it at boot, since /var/lock lives in memory).
constexpr const char* kLockFilesDir = zanth::paths::kLockFilesDir;

// A lock file taken by lock_file_wait or lock_file_try. fd > 0: the lock is
// held through fd; 0: another holder has it; -1 (or another negative
// value): failure, errno tells why. path is the lock file's path.
struct LockHandle {
  int fd;
  char* path;
};

// lock_file_wait - lock the file for name, waiting until it is free. With
// hashed set the file is kLockFilesDir/<lower-case hex MD5 of name>,
// otherwise name is the path. A new handle for lock_file_release, or null
// (errno ENOMEM) when none can be made. A failed open is reported. A
// termination signal arriving during the wait ends it: fd -1, errno EINTR
// (see process/termination.h). Lock files are close-on-exec and never
// descriptor 0, 1 or 2.
LockHandle* lock_file_wait(const char* name, int hashed);

// lock_file_try - as lock_file_wait, but gives fd 0 at once when held.
LockHandle* lock_file_try(const char* name, int hashed);

// lock_file_held - whether another open file holds the lock for name (as
// lock_file_wait names it): 1 held, 0 free or never made, -1 when it cannot
// be tested (errno set). Creates nothing and takes the lock only shared and
// only for the instant of the test, so a locker waits no longer than that.
int lock_file_held(const char* name, int hashed);

// lock_file_release - unlock, free the path and the handle; null is fine.
void lock_file_release(LockHandle* handle);

// utilities_sem_init - open the semaphore file, creating it and its
// directories when missing; a no-op when already open.
void utilities_sem_init();

// sem_lock - take semaphore semnum, waiting for other processes.
void sem_lock(long semnum);

// sem_trylock - take semaphore semnum; 0, or -1 when another process has it.
int sem_trylock(long semnum);

// sem_unlock - give semaphore semnum back.
void sem_unlock(long semnum);

// shutdown_sem - close the semaphore file, dropping every semaphore held.
void shutdown_sem();

namespace zanth {

// Kinds and modes of lock().
constexpr int kLockHashed = 0;  // name is hashed into kLockFilesDir
constexpr int kLockPath = 1;    // name is the lock file's path
constexpr int kLockWait = 0;
constexpr int kLockTry = 1;

// lock - store a new handle for name in handle (kLockWait or kLockTry; a
// previous handle there is not released) or, for any other mode, only check
// the handle given. Throws ExSystemError / SystemError "lock() failed" when
// the file cannot be locked, and std::runtime_error "lock(<name>) failed:
// file is already locked" when kLockTry finds it held, and
// process::TerminationSignal when a termination signal ended the wait
// (while no exception is in flight; during an undo, the EINTR error). A handle stored
// before a throw holds no lock but must still be released.
void lock(LockHandle*& handle, const std::string& name, int kind, int mode);

// lockHeld - lock_file_held for the lock file lock() takes for name and
// kind: a check asks about exactly the lock the rename holds.
int lockHeld(const std::string& name, int kind);

// Holds a lock file for its scope:
//   {
//     zanth::ScopedLock guard(mapPath, zanth::kLockPath, zanth::kLockWait);
//     ... rewrite the map ...
//   }  // unlocked here
class ScopedLock final {
 public:
  // Locks as lock() does, with the same exceptions.
  ScopedLock(const std::string& name, int kind, int mode);
  ~ScopedLock();
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

  // Unlocks before the scope ends; later calls do nothing.
  void release();

 private:
  LockHandle* handle_ = nullptr;
};

}  // namespace zanth

#endif  // MXKEEP_PROCESS_LOCK_H
