// Maildir usage counting, the folder modification check and directory
// tree sizes. The count and the tree size read directories through
// descriptors (openat, fstatat): they neither change the working directory
// nor depend on the length of the paths below their top.
#include "common/maildir_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "common/errors.h"
#include "common/syscall.h"

namespace {

constexpr const char* kMessageDirs[] = {"new", "cur"};
// Deleted mail does not count against the quota.
constexpr const char* kTrashFolder = ".Trash";

bool is_dot_or_dotdot(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

bool is_folder_name(const char* name) {
  return name[0] == '.' && !is_dot_or_dotdot(name) && std::strcmp(name, kTrashFolder) != 0;
}

// open_dir_at - a descriptor of the directory parent/name.
int open_dir_at(int parent, const char* name) {
  return zanth::retryEintr(
      [&] { return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
}

// add_bytes - a sum that saturates rather than wraps on absurd sizes.
long long add_bytes(long long total, long long more) {
  long long sum;
  return __builtin_add_overflow(total, more, &sum) ? LLONG_MAX : sum;
}

// count_messages - add the messages of parent/name; a directory that
// cannot be opened counts as empty.
int count_messages(int parent, const char* name, maildir_usage* usage) {
  zanth::UniqueDir dir(zanth::openDirAt(parent, name));
  struct stat st;
  if (dir.get() == nullptr || ::fstat(::dirfd(dir.get()), &st) != 0) return 0;
  if (st.st_mtime > usage->newest_mtime) usage->newest_mtime = st.st_mtime;
  for (const struct dirent* entry; (entry = ::readdir(dir.get())) != nullptr;) {
    if (is_dot_or_dotdot(entry->d_name)) continue;
    long long size;
    if (!maildir_size_from_name(entry->d_name, &size)) {
      struct stat file;
      if (zanth::retryEintr([&] {
            return ::fstatat(::dirfd(dir.get()), entry->d_name, &file, AT_SYMLINK_NOFOLLOW);
          }) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) continue;  // delivered elsewhere meanwhile
        return -1;
      }
      size = file.st_size;
    }
    usage->bytes = add_bytes(usage->bytes, size);
    ++usage->messages;
  }
  return 0;
}

int count_folder(int folder, maildir_usage* usage) {
  for (const char* sub : kMessageDirs)
    if (count_messages(folder, sub, usage) != 0) return -1;
  return 0;
}

// subfolders_mtime - fold the mtimes of "cur" and "new" of maildir/folder
// (of maildir itself when folder is null) into *newest.
int subfolders_mtime(const char* maildir, const char* folder, time_t* newest) {
  for (const char* sub : {"cur", "new"}) {
    char path[zanth::kPathMax];
    bool fits = folder == nullptr ? zanth::path_format(path, sizeof path, "%s/%s", maildir, sub)
                                  : zanth::path_format(path, sizeof path, "%s/%s/%s", maildir,
                                                       folder, sub);
    if (!fits) {
      errno = ENAMETOOLONG;
      report_error(kReportAndGoOn, kReportFlag,
                   "Maildir subfolder '%s' name too long to fit the allowed buffer", sub);
      return -1;
    }
    struct stat st;
    if (zanth::retryEintr([&] { return ::stat(path, &st); }) != 0) {
      report_error(kReportAndGoOn, kReportFlag, "Maildir subfolder '%s' stat failed", sub);
      errno = EIO;
      return -1;
    }
    if (st.st_mtime > *newest) *newest = st.st_mtime;
  }
  return 0;
}

// is_folder_dir - whether the dot-entry is a directory; an entry that
// cannot be examined is passed over silently, one that is something else
// is reported and passed over.
bool is_folder_dir(const char* maildir, const struct dirent* entry) {
  if (entry->d_type == DT_DIR) return true;
  char path[zanth::kPathMax];
  struct stat st;
  if (!zanth::path_format(path, sizeof path, "%s/%s", maildir, entry->d_name) ||
      zanth::retryEintr([&] { return ::stat(path, &st); }) != 0)
    return false;
  if (S_ISDIR(st.st_mode)) return true;
  char cwd[zanth::kPathMax];
  report_error(kReportAndGoOn, kReportFlag, "Bad/unrecognized entry %s within Maildir folder %s\n",
               entry->d_name, ::getcwd(cwd, sizeof cwd) != nullptr ? cwd : maildir);
  return false;
}

// tree_size_at - the apparent size of parent/name and what lies below it.
long long tree_size_at(int parent, const char* name) {
  struct stat st;
  if (zanth::retryEintr([&] { return ::fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW); }) != 0)
    return -1;
  long long total = st.st_size;
  if (!S_ISDIR(st.st_mode)) return total;
  zanth::UniqueDir dir(zanth::openDirAt(parent, name, O_NOFOLLOW));
  if (dir.get() == nullptr) return -1;
  for (const struct dirent* entry; (entry = ::readdir(dir.get())) != nullptr;) {
    if (is_dot_or_dotdot(entry->d_name)) continue;
    long long below = tree_size_at(::dirfd(dir.get()), entry->d_name);
    if (below < 0) {
      if (errno == ENOENT) continue;
      return -1;
    }
    total = add_bytes(total, below);
  }
  return total;
}

}  // namespace

bool maildir_size_from_name(const char* name, long long* size) {
  static constexpr char kSizeTag[] = ",S=";
  for (const char* tag = std::strstr(name, kSizeTag); tag != nullptr;
       tag = std::strstr(tag + 1, kSizeTag)) {
    const char* p = tag + sizeof kSizeTag - 1;
    if (*p < '0' || *p > '9') continue;
    long long value = 0;
    bool fits = true;
    for (; *p >= '0' && *p <= '9'; ++p) {
      const int digit = *p - '0';
      if (value > (LLONG_MAX - digit) / 10) fits = false;
      if (fits) value = value * 10 + digit;
    }
    if (*p != '\0' && *p != ':') continue;
    if (!fits) return false;
    *size = value;
    return true;
  }
  return false;
}

int maildir_count_usage(const char* maildir, maildir_usage* usage) {
  *usage = maildir_usage{0, 0, 0};
  zanth::UniqueDir dir(zanth::openDirAt(AT_FDCWD, maildir));
  if (dir.get() == nullptr) return -1;
  const int top = ::dirfd(dir.get());
  if (count_folder(top, usage) != 0) return -1;
  for (const struct dirent* entry; (entry = ::readdir(dir.get())) != nullptr;) {
    if (entry->d_type != DT_DIR || !is_folder_name(entry->d_name)) continue;
    zanth::UniqueFd folder(open_dir_at(top, entry->d_name));
    if (folder.get() >= 0 && count_folder(folder.get(), usage) != 0) return -1;
  }
  return 0;
}

int maildir_newest_folder_mtime(const char* maildir, time_t* newest) {
  *newest = 0;
  if (subfolders_mtime(maildir, nullptr, newest) != 0) return -1;
  zanth::UniqueDir dir(::opendir(maildir));
  if (dir.get() == nullptr) {
    report_error(kReportAndGoOn, kReportFlag,
                 "Unable to open Maildir folder. Has it just been removed?");
    return -1;
  }
  for (const struct dirent* entry; (entry = ::readdir(dir.get())) != nullptr;) {
    if (!is_folder_name(entry->d_name) || !is_folder_dir(maildir, entry)) continue;
    if (subfolders_mtime(maildir, entry->d_name, newest) != 0) return -1;
  }
  return 0;
}

long long dir_size(const char* path) { return tree_size_at(AT_FDCWD, path); }
