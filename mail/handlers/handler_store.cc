// Handler store: naming, parameter files, search and ordering of handler
// descriptions under the info root. The lowest layer of the handler code:
// it knows nothing of actions. Every failure is logged once here through
// mail_log; callers pass the result up silently.
#include "mail/handlers/handler_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/chars.h"
#include "common/descriptors.h"
#include "common/file_util.h"
#include "common/mail_log.h"
#include "common/syscall.h"

using zanth::isEmpty;
using zanth::path_format;
using zanth::shown;
using zanth::UniqueCString;

namespace {

constexpr mode_t kParamMode = 0644;

const char* const kTypeNames[] = {"sender", "recipient", "sender-domain", "recipient-domain",
                                  "global"};

// Parts of a handler name "priority-template-random": the priority ends at
// the first "-", the random part starts after the last one.
struct NameParts {
  size_t priority_len;
  const char* tmpl;
  size_t tmpl_len;
  const char* random;
};

enum class Split { kOk, kNoPriority, kNoRandom, kEmptyTemplate };

Split splitName(const char* name, NameParts* parts) {
  const char* first = name != nullptr ? std::strchr(name, '-') : nullptr;
  if (first == nullptr) return Split::kNoPriority;
  const char* last = std::strrchr(name, '-');
  if (last == first) return Split::kNoRandom;
  if (last == first + 1) return Split::kEmptyTemplate;
  parts->priority_len = static_cast<size_t>(first - name);
  parts->tmpl = first + 1;
  parts->tmpl_len = static_cast<size_t>(last - first - 1);
  parts->random = last + 1;
  return Split::kOk;
}

// Splits name, logging why it cannot be split.
bool splitLogged(const char* name, NameParts* parts) {
  switch (splitName(name, parts)) {
    case Split::kOk:
      return true;
    case Split::kNoPriority:
      mail_log(LOG_ERR, "Invalid handler name '%s': missing priority section", shown(name));
      break;
    case Split::kNoRandom:
      mail_log(LOG_ERR, "Invalid handler name '%s': missing random part", name);
      break;
    case Split::kEmptyTemplate:
      mail_log(LOG_ERR, "Invalid handler name '%s': empty template part", name);
      break;
  }
  return false;
}

char* copyPart(const char* start, size_t len) {
  char* copy = strndup(start, len);
  if (copy == nullptr) mail_log(LOG_ERR, "Insufficient memory");
  return copy;
}

// Reads one parameter value; false when the file cannot be read (the file
// helper has reported why).
bool readValue(const char* path, char (&value)[kHandlerParamMax]) {
  return read_first_line(value, sizeof value, path) == 0;
}

// Writes "value\n" to the open file fd, in one write where it can: a
// store rename writes four such files per handler.
bool writeLine(int fd, const char* value) {
  const size_t len = std::strlen(value);
  iovec parts[] = {{const_cast<char*>(value), len}, {const_cast<char*>("\n"), 1}};
  const ssize_t n = zanth::retryEintr([&] { return ::writev(fd, parts, 2); });
  if (n < 0) return false;
  // A short write leaves the rest of value, then the newline, to go.
  const size_t done = static_cast<size_t>(n);
  if (done < len && zanth::writeFully(fd, value + done, len - done) != 0) return false;
  return done > len || zanth::writeFully(fd, "\n", 1) == 0;
}

// Template part of name copied into buf for strcoll; names on disk are far
// shorter than the buffer, longer ones compare by their first kPathMax - 1.
void templateOf(const NameParts& parts, char (&buf)[zanth::kPathMax]) {
  size_t len = parts.tmpl_len < sizeof buf ? parts.tmpl_len : sizeof buf - 1;
  std::memcpy(buf, parts.tmpl, len);
  buf[len] = '\0';
}

int compareNames(const void* a, const void* b) {
  return handler_compare(*static_cast<char* const*>(a), *static_cast<char* const*>(b));
}

}  // namespace

int handler_compare(const char* x, const char* y) {
  NameParts px, py;
  if (splitName(x, &px) != Split::kOk || splitName(y, &py) != Split::kOk) {
    mail_log(LOG_ERR, "Unable to split handlers name. Skipping sorting handlers..");
    return 0;
  }
  int prio_x = 0, prio_y = 0;
  std::sscanf(x, "%i", &prio_x);
  std::sscanf(y, "%i", &prio_y);
  if (prio_x != prio_y) return prio_x < prio_y ? -1 : 1;
  char tx[zanth::kPathMax], ty[zanth::kPathMax];
  templateOf(px, tx);
  templateOf(py, ty);
  int by_template = std::strcoll(tx, ty);
  if (by_template != 0) return by_template;
  return std::strcoll(px.random, py.random);
}

unsigned handler_type_code(const char* type_name) {
  if (isEmpty(type_name)) return kHandlerTypeUnknown;
  for (unsigned code = 0; code < sizeof kTypeNames / sizeof kTypeNames[0]; ++code) {
    if (strcasecmp(type_name, kTypeNames[code]) == 0) return code;
  }
  return kHandlerTypeUnknown;
}

const char* handler_type_name(unsigned code) {
  return code <= kHandlerGlobal ? kTypeNames[code] : nullptr;
}

char* handler_priority(const char* name) {
  NameParts parts;
  if (!splitLogged(name, &parts)) return nullptr;
  return copyPart(name, parts.priority_len);
}

char* handler_template(const char* name) {
  NameParts parts;
  if (!splitLogged(name, &parts)) return nullptr;
  return copyPart(parts.tmpl, parts.tmpl_len);
}

bool handler_info_path(char* path, size_t size, const char* name, const char* file) {
  if (file == nullptr) return path_format(path, size, "%s/%s", kHandlersInfoRoot, name);
  return path_format(path, size, "%s/%s/%s", kHandlersInfoRoot, name, file);
}

char* handler_param(const char* name, const char* param) {
  char path[zanth::kPathMax];
  if (!handler_info_path(path, sizeof path, shown(name), shown(param))) {
    mail_log(LOG_ERR,
             "either handler name '%s' or param '%s' are too long to be stored in the filesystem",
             shown(name), shown(param));
    return nullptr;
  }
  struct stat st;
  if (::stat(path, &st) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
    mail_log(LOG_ERR, "No such parameter '%s' for handler '%s'", shown(param), shown(name));
    return nullptr;
  }
  char value[kHandlerParamMax];
  if (!readValue(path, value)) {
    mail_log(LOG_ERR, "Unable to get string from file: %s\n", path);
    return nullptr;
  }
  char* copy = strdup(value);
  if (copy == nullptr)
    mail_log(LOG_ERR, "Unable to allocate sufficient memory: %s", std::strerror(errno));
  return copy;
}

char* handler_executable(const char* name) {
  char link[zanth::kPathMax];
  if (!handler_info_path(link, sizeof link, shown(name), "executable")) {
    mail_log(LOG_ERR, "HandlerName '%s' is too long to form a valid hook filename", shown(name));
    return nullptr;
  }
  UniqueCString resolved(static_cast<char*>(std::malloc(zanth::kPathMax)));
  if (!resolved) {
    mail_log(LOG_ERR, "Insufficient memory");
    return nullptr;
  }
  // The link names its program by absolute path: resolving that alone
  // spares a walk of the store's own directories, and comes to the same.
  char target[zanth::kPathMax];
  const ssize_t n = ::readlink(link, target, sizeof target);
  const bool absolute = n > 0 && static_cast<size_t>(n) < sizeof target && target[0] == '/';
  if (absolute) target[n] = '\0';
  if (::realpath(absolute ? target : link, resolved.get()) == nullptr) {
    mail_log(LOG_ERR, "Unable to get executable file name for handler\n");
    return nullptr;
  }
  return resolved.release();
}

int handler_store_param(const char* dir, const char* file, const char* value) {
  return handler_store_param_at(AT_FDCWD, dir, file, value);
}

int handler_store_param_at(int dir_fd, const char* dir, const char* file, const char* value) {
  if (isEmpty(value)) return 0;
  char path[zanth::kPathMax];
  if (!path_format(path, sizeof path, "%s/%s", shown(dir), shown(file))) {
    mail_log(LOG_ERR, "Unable to create file '%s/%s'", shown(dir), shown(file));
    return -1;
  }
  // One open for truncating, writing and setting the mode.
  const char* name = dir_fd == AT_FDCWD ? path : shown(file);
  zanth::UniqueFd fd(open_truncate_file_at(dir_fd, name, path));
  if (fd.get() < 0) {
    mail_log(LOG_ERR, "Unable to create file '%s'", path);
    return -1;
  }
  if (!writeLine(fd.get(), value)) {
    mail_log(LOG_ERR, "Unable to add string '%s' to '%s'", value, path);
    return -1;
  }
  // The file may have existed with other permissions; readers need 0644.
  const bool moded = ::fchmod(fd.get(), kParamMode) == 0;
  const int mode_errno = errno;
  if (::close(fd.release()) != 0) {
    mail_log(LOG_ERR, "Unable to add string '%s' to '%s'", value, path);
    return -1;
  }
  if (!moded) {
    errno = mode_errno;
    mail_log(LOG_ERR, "Unable to create file '%s'", path);
    return -1;
  }
  return 0;
}

char* handler_find(const char* tmpl, const char* type_name, const char* target, const char* hook) {
  if (isEmpty(tmpl) || isEmpty(hook)) {
    mail_log(LOG_ERR, "Some parameter(s) were not defined");
    return nullptr;
  }
  unsigned code = handler_type_code(type_name);
  if (code == kHandlerTypeUnknown) {
    mail_log(LOG_ERR, "Invalid handler type '%s'", shown(type_name));
    return nullptr;
  }
  if (code != kHandlerGlobal && isEmpty(target)) {
    mail_log(LOG_ERR, "Some parameter was not defined");
    return nullptr;
  }
  zanth::UniqueDir dir(::opendir(kHandlersInfoRoot));
  if (dir.get() == nullptr) {
    mail_log(LOG_ERR, "Unable to open directory %s: %s", kHandlersInfoRoot, std::strerror(errno));
    return nullptr;
  }
  while (const dirent* entry = ::readdir(dir.get())) {
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    // A plain substring test, not the parsed template part: "spam" also
    // finds "10-antispam-Ab3xYz". Callers rely on this looser match.
    if (std::strstr(name, tmpl) == nullptr) continue;

    char path[zanth::kPathMax];
    char value[kHandlerParamMax];
    if (!handler_info_path(path, sizeof path, name, "hook")) {
      mail_log(LOG_ERR, "Path '%s/%s/hook' is too long to be stored in the filesystem",
               kHandlersInfoRoot, name);
      return nullptr;
    }
    if (!readValue(path, value)) {
      mail_log(LOG_ERR, "Unable to get string from file: %s\n", path);
      return nullptr;
    }
    if (std::strcmp(value, hook) != 0) continue;

    if (!handler_info_path(path, sizeof path, name, "handler-type")) {
      mail_log(LOG_ERR, "Path '%s/%s/handler-type' is too long to be stored in the filesystem",
               kHandlersInfoRoot, name);
      return nullptr;
    }
    if (!readValue(path, value)) return nullptr;
    if (std::strcmp(value, type_name) != 0) continue;

    if (code != kHandlerGlobal) {
      if (!handler_info_path(path, sizeof path, name, type_name)) {
        mail_log(LOG_ERR, "Path '%s/%s/%s' is too long to be stored in the filesystem",
                 kHandlersInfoRoot, name, type_name);
        return nullptr;
      }
      if (!readValue(path, value)) return nullptr;
      if (strcasecmp(value, target) != 0) continue;
    }
    char* found = strdup(name);
    if (found == nullptr) mail_log(LOG_ERR, "Insufficient memory");
    return found;
  }
  return nullptr;
}

void handler_sort(char** names, size_t count) {
  if (names == nullptr || count < 2) return;
  std::qsort(names, count, sizeof names[0], compareNames);
}
