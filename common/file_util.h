// File and directory helpers of the procedural mail code: directory paths
// (plain, or with owner and mode), empty files, the first line of a small
// file, tree removal, and giving a file to an account by name. Problems
// are reported through report_error; the ones marked "ends the process"
// exit with status 1 on purpose.
#ifndef MXKEEP_COMMON_FILE_UTIL_H
#define MXKEEP_COMMON_FILE_UTIL_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

// make_dirs - create every missing directory of path with mode 0755 (less
// the umask); existing ones are left as they are. Non-zero when the whole
// path exists as directories afterwards, 0 with errno set otherwise (ENOTDIR
// when some component is not a directory). Reports nothing.
int make_dirs(const char* path);

// make_dirs_owned - create path and its missing parents, each owned by
// uid:gid; path gets mode, the parents mode & 0777. An existing directory
// is not touched (nor, then, are its parents). 0, or -1 when a directory
// cannot be made (reported, errno kept); a failed chown is reported and
// passed over. A failure is the caller's to handle: in the middle of a
// rename, ending the process would skip the undo.
int make_dirs_owned(const char* path, uid_t uid, gid_t gid, mode_t mode);

// create_truncate_file - make path an empty file (mode 0644 when new);
// 0 or -1 (reported).
int create_truncate_file(const char* path);

// open_truncate_file_at - as create_truncate_file for name relative to the
// directory open as dir (AT_FDCWD: the working directory), but the file is
// left open for writing: its descriptor (the caller closes it), or -1
// (reported, naming the file path).
int open_truncate_file_at(int dir, const char* name, const char* path);

// create_file - make sure path exists as a file, keeping its content;
// 0 or -1 (reported).
int create_file(const char* path);

// read_first_line - the first line of path without surrounding white space
// into buffer (size bytes with the terminator); an empty file fills the
// whole buffer with zeros. 0 or -1 (reported); -1 too for a link or
// anything but a regular file, which is neither followed nor waited on.
int read_first_line(char* buffer, size_t size, const char* path);

// remove_tree - remove path and everything under it, or, when remove_top is
// 0, only what is under it. Symbolic links are removed, never followed; a
// missing path is fine. 0, or -1 at the first failure (reported), which
// leaves the rest in place for the caller to fail on. The working directory
// is left alone: entries are removed relative to their open directory.
int remove_tree(const char* path, int remove_top);
constexpr int kRemoveTop = 1;  // remove_top: path goes too

// open_unshared - path opened read-only, never through a symbolic link at
// it (ELOOP) nor blocking on a fifo, and refused (EMLINK) when it is a
// regular file with other hard links; *st gets its status. A descriptor
// (the caller closes it), or -1 with errno; reports nothing.
int open_unshared(const char* path, struct stat* st);

// set_owner_by_name - give path to the account user (its uid and primary
// gid) with mode. A symbolic link at path is refused, never followed, and
// so is a regular file with other hard links: in a directory its user
// owns, the name may have been swapped for a link to a system file.
// 0 or -1 (reported: "user %s not found", "ERROR: unable to chown %s: %s\n",
// "ERROR: unable to chmod %s: %s\n").
int set_owner_by_name(const char* path, const char* user, mode_t mode);

// Which call of set_owner_and_mode failed, if any.
enum owner_mode_step { OWNER_MODE_SET = 0, OWNER_MODE_CHOWN_FAILED, OWNER_MODE_CHMOD_FAILED };

// set_owner_and_mode - chown path to uid:gid, then chmod it to mode, each
// repeated on EINTR; the chmod is not tried when the chown failed. Reports
// nothing: callers word the failure of either call their own way, errno
// saying why.
owner_mode_step set_owner_and_mode(const char* path, uid_t uid, gid_t gid, mode_t mode);

// open_standard_descriptors - reopen "/dev/null" on whichever of
// descriptors 0, 1 and 2 is closed, so that no file the process opens later
// gets one of them (a lock file on 0, a map text on 2 taking diagnostics).
// Call first thing in main. 0, or -1 with errno when one cannot be opened.
int open_standard_descriptors();

#endif  // MXKEEP_COMMON_FILE_UTIL_H
