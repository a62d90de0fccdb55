// Line-file editor: adds one line at the end of a small text file or
// removes every line equal to a text, for files that other processes read
// (delivery instructions and the like). A file is rewritten through a
// "<path>.tmp" copy that is synced and renamed into place under the file's
// lock, so readers see the old or the new file, never a part of one.
// Procedural: 0 / -1 (false) with errno set; nothing is reported here.
#ifndef MXKEEP_PROCESS_FILE_STR_H
#define MXKEEP_PROCESS_FILE_STR_H

#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "common/syscall.h"
#include "common/temp_file.h"

struct LockHandle;

// file_str_line_matches - whether a line of the file (as read, with or
// without its line feed) is the line `text` names. One trailing line feed
// is ignored on either side; everything else must be equal byte for byte,
// so a text with a line feed inside never matches.
bool file_str_line_matches(std::string_view line, std::string_view text);

enum file_str_action { FILE_STR_ADD = 0, FILE_STR_REMOVE = 1 };

// file_str - FILE_STR_ADD appends text as the file's last line (a missing
// file is created with mode 0600); FILE_STR_REMOVE drops every line that
// matches text and fails with ENOENT when the file is missing. See
// file_str_edit for the rules both follow.
int file_str(const char* path, const char* text, file_str_action action);

// file_str_edit - in one rewrite, drop every line matching one of the
// `count` texts of `remove`, then, when `add` is not null, append `add` as
// the last line. Line feeds are supplied where the file's last line or
// `add` lack one. The file keeps its owner and mode. Without `add` a
// missing file fails with ENOENT. Refused: a text with a line feed before
// its end (EINVAL), a symbolic link at path (ELOOP), anything but a regular
// file (EINVAL), a file with other hard links (EMLINK). 0 or -1 with errno;
// the temporary file never outlives a failure.
int file_str_edit(const char* path, const char* const* remove, size_t count, const char* add);

namespace zanth {

// A new version of a file that other processes read, written beside it as
// "<path>.tmp" and put in its place by commit(). From open() until it is
// destroyed it holds the path's lock (lock_file_wait on the path, hashed),
// so editors of one file take turns. Uncommitted, it removes its temporary
// file. Never throws; false means failure with errno set.
//
//   zanth::ReplacementFile next(path);
//   if (!next.open() || !next.write("| true\n") || !next.commit(0600))
//     ... errno says why; no "<path>.tmp" is left ...
class ReplacementFile final {
 public:
  explicit ReplacementFile(const char* path);
  ~ReplacementFile();
  ReplacementFile(const ReplacementFile&) = delete;
  ReplacementFile& operator=(const ReplacementFile&) = delete;

  // open - take the lock and create the temporary file afresh (mode 0600,
  // never through a symbolic link; a stale one is removed first).
  bool open();
  bool write(std::string_view data);
  // commit - give the new file mode (and uid:gid unless -1), sync it and
  // rename it over the path.
  bool commit(mode_t mode, uid_t uid = static_cast<uid_t>(-1),
              gid_t gid = static_cast<gid_t>(-1));
  // discard - remove the temporary file now; errno is preserved.
  void discard();

 private:
  char path_[kPathMax];
  char tmp_[kPathMax];
  bool named_;  // both names fit their buffers
  LockHandle* lock_ = nullptr;
  TempFile file_;
};

}  // namespace zanth

#endif  // MXKEEP_PROCESS_FILE_STR_H
