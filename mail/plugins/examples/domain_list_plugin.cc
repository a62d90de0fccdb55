// Example rename plugin: keeps the list of locally hosted mail domains that
// mail services read (one name a line) in line with a domain rename. The
// line equal to the old name, in any letter case, becomes the new name;
// the list is rewritten through a synced temporary file renamed into place,
// so a reader sees the old list or the new one, never a mix. Returns 0 on
// success, also when there is no list or the name is not in it, and 1 on a
// failure, which it reports on standard error.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/descriptors.h"
#include "common/fixed_paths.h"
#include "common/syscall.h"
#include "common/temp_file.h"
#include "mail/plugins/rename_plugin.h"

namespace {

constexpr const char* kDomainList = zanth::paths::kDomainListPath;
constexpr char kTempSuffix[] = ".tmp";
constexpr mode_t kPermissionBits = 07777;

// fail - report "domain_list: <path>: <operation>: <system error>"; 1.
int fail(const std::string& path, const char* operation) {
  std::fprintf(stderr, "domain_list: %s: %s: %s\n", path.c_str(), operation,
               std::strerror(errno));
  return 1;
}

bool read_all(int fd, std::string* text) {
  char buf[8192];
  for (;;) {
    ssize_t n = zanth::retryEintr([&] { return ::read(fd, buf, sizeof buf); });
    if (n < 0) return false;
    if (n == 0) return true;
    text->append(buf, static_cast<size_t>(n));
  }
}

bool same_name(const std::string& line, const char* name) {
  return ::strcasecmp(line.c_str(), name) == 0;
}

// Calls fn(name, terminator) for each line; the last line may lack "\n".
template <class F>
void for_each_line(const std::string& text, F fn) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      fn(text.substr(start), "");
      return;
    }
    fn(text.substr(start, end - start), "\n");
    start = end + 1;
  }
}

// rename_in_list - the list with old_name renamed; `changed` tells whether
// it differs. A new name already listed is not listed twice.
std::string rename_in_list(const std::string& text, const char* old_name, const char* new_name,
                           bool* changed) {
  bool new_listed = false;
  for_each_line(text, [&](const std::string& line, const char*) {
    new_listed = new_listed || (same_name(line, new_name) && !same_name(line, old_name));
  });
  std::string result;
  *changed = false;
  for_each_line(text, [&](const std::string& line, const char* end) {
    if (!same_name(line, old_name)) {
      result.append(line).append(end);
      return;
    }
    *changed = true;
    if (!new_listed) result.append(new_name).append(end);
    new_listed = true;
  });
  return result;
}

// replace_list - write `text` as the new list, with the old list's owner
// and mode, through a synced temporary file (removed again on failure).
int replace_list(const std::string& text, const struct stat& old_list) {
  const std::string list = kDomainList;
  const std::string temp = list + kTempSuffix;
  zanth::TempFile out(zanth::retryEintr([&] {
                        return ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
                      }),
                      temp.c_str());
  if (out.fd() < 0) return fail(temp, "open");
  if (::fchown(out.fd(), old_list.st_uid, old_list.st_gid) != 0 ||
      ::fchmod(out.fd(), old_list.st_mode & kPermissionBits) != 0 ||
      zanth::writeFully(out.fd(), text.data(), text.size()) != 0 || out.sync() != 0)
    return fail(temp, "write");
  if (out.renameTo(list.c_str()) != 0) return fail(temp, "rename");
  // The rename is made durable on a best-effort basis: the list is already
  // correct for every reader, and a failure here changes nothing for them.
  const std::string dir_path = list.substr(0, list.rfind('/'));
  zanth::UniqueFd dir(::open(dir_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() >= 0) ::fsync(dir.get());
  return 0;
}

}  // namespace

int rename_domain(const char* old_domain, const char* new_domain) {
  const std::string list = kDomainList;
  std::string text;
  struct stat st;
  {
    zanth::UniqueFd in(zanth::retryEintr([&] { return ::open(kDomainList, O_RDONLY | O_CLOEXEC); }));
    if (in.get() < 0) return errno == ENOENT ? 0 : fail(list, "open");
    if (::fstat(in.get(), &st) != 0 || !read_all(in.get(), &text)) return fail(list, "read");
  }
  bool changed = false;
  std::string updated = rename_in_list(text, old_domain, new_domain, &changed);
  return changed ? replace_list(updated, st) : 0;
}
