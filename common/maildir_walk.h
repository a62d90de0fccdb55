// Maildir usage counting for the quota file, and the apparent size of a
// directory tree. Procedural: 0 / -1 (or a size / -1) with errno; the
// folder check reports its fixed messages through report_error (status 0),
// the size-from-name rule, the count and the tree size report nothing.
// Kept for the control panel's quota files: neither command reaches it.
#ifndef MXKEEP_COMMON_MAILDIR_WALK_H
#define MXKEEP_COMMON_MAILDIR_WALK_H

#include <ctime>

// maildir_size_from_name - the size a message file's name declares: the
// decimal number after the first ",S=" that is followed by digits ending at
// the end of the name or at ":" ("1.M2.host,S=1000:2,S" declares 1000).
// True with *size set; false when no such part is there or the number does
// not fit a long long. Pure: no system calls, errno untouched.
bool maildir_size_from_name(const char* name, long long* size);

// What a Maildir holds, as its quota file counts it.
struct maildir_usage {
  long long bytes;
  unsigned long long messages;
  time_t newest_mtime;  // newest mtime of the "new"/"cur" directories read
};

// maildir_count_usage - messages and bytes in "new" and "cur" of maildir
// and of each folder (a directory entry of type directory named ".x",
// except ".Trash"). A file's size is the one its name declares, else its
// lstat size; files that vanish meanwhile are skipped; a missing or
// unreadable "new"/"cur" counts as empty. Each directory's mtime is taken
// when it is opened, before it is read. 0, or -1 with errno when maildir
// cannot be opened or an lstat fails otherwise.
int maildir_count_usage(const char* maildir, maildir_usage* usage);

// maildir_newest_folder_mtime - the newest mtime of "cur" and "new" of
// maildir and of each folder that is a directory (by entry type, or by
// stat when the type says otherwise); ".Trash" is left out. 0, or -1
// (reported; errno EIO when a "cur"/"new" cannot be stat-ed).
int maildir_newest_folder_mtime(const char* maildir, time_t* newest);

// dir_size - the apparent size (st_size sum) of path and everything below
// it; symbolic links are counted as links, never followed, and entries
// that vanish meanwhile are skipped. -1 with errno on failure.
long long dir_size(const char* path);

#endif  // MXKEEP_COMMON_MAILDIR_WALK_H
