// Handler index: one read of the handler store per mass operation. Values
// are read and trimmed as the store's parameter reader does, but with plain
// system calls and without a word on failure: whatever the index cannot
// read cleanly is left to the store's readers, which report it.
#include "mail/handlers/handler_index.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <new>

#include "common/chars.h"
#include "common/syscall.h"
#include "mail/handlers/handler_store.h"

namespace zanth {
namespace handlers {
namespace {

// Enough for any value the store can read back (kHandlerParamMax) with
// generous white space around it; a longer first line goes to the store.
constexpr size_t kReadMax = 1024;
constexpr size_t kMinBuckets = 1024;
// Files are opened relative to the info root, which saves walking it each
// time; their full paths are still formed to refuse the same over-long
// ones handler_param refuses.
const size_t kRootLen = std::strlen(kHandlersInfoRoot) + 1;

// The first line of path (relative to dir), trimmed as handler_param
// returns it, at *start (inside buf) for *len bytes. false when
// handler_param would fail or might read something else: the file cannot
// be opened or read, its first line does not fit buf, holds a NUL byte, or
// is too long to be read back.
bool readTrimmed(int dir, const char* path, char (&buf)[kReadMax], const char** start,
                 size_t* len) {
  // As handler_param opens it: no link followed, nothing but a regular file.
  UniqueFd fd(retryEintr(
      [&] { return ::openat(dir, path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC); }));
  if (fd.get() < 0 || !isRegularFile(fd.get())) return false;
  size_t got = 0;
  const char* newline = nullptr;
  while (got < sizeof buf && newline == nullptr) {
    const ssize_t n = retryEintr([&] { return ::read(fd.get(), buf + got, sizeof buf - got); });
    if (n < 0) return false;
    if (n == 0) break;
    newline = static_cast<const char*>(std::memchr(buf + got, '\n', static_cast<size_t>(n)));
    got += static_cast<size_t>(n);
  }
  if (newline == nullptr && got == sizeof buf) return false;
  const char* end = newline != nullptr ? newline : buf + got;
  const char* begin = buf;
  if (std::memchr(begin, '\0', static_cast<size_t>(end - begin)) != nullptr) return false;
  while (end > begin && isPosixSpace(end[-1])) --end;
  while (begin < end && isPosixSpace(*begin)) ++begin;
  *start = begin;
  *len = static_cast<size_t>(end - begin);
  return *len < kHandlerParamMax;
}

// FNV-1a over the type and (unless global) the value in lower case, two of
// the fields handler_find compares, folded as it folds them. The hook is
// left out: it is read only for the few handlers a search meets.
uint32_t keyHash(const char* type, const char* value, bool global) {
  uint64_t h = 1469598103934665603ull;
  auto mix = [&h](unsigned char c) {
    h ^= c;
    h *= 1099511628211ull;
  };
  for (const char* p = type; *p != '\0'; ++p) mix(static_cast<unsigned char>(*p));
  mix(0);
  if (!global) {
    for (const char* p = value; *p != '\0'; ++p)
      mix(static_cast<unsigned char>(std::tolower(static_cast<unsigned char>(*p))));
  }
  return static_cast<uint32_t>(h ^ (h >> 32));
}

bool isGlobal(const char* type) { return handler_type_code(type) == kHandlerGlobal; }

}  // namespace

bool HandlerIndex::load() {
  UniqueDir dir(::opendir(kHandlersInfoRoot));
  if (dir.get() == nullptr) return false;
  info_.reset(::openat(dirfd(dir.get()), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (info_.get() < 0) return false;
  try {
    while (const dirent* entry = ::readdir(dir.get())) {
      const char* name = entry->d_name;
      if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
      append(name);
    }
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
  return true;
}

bool HandlerIndex::typeAndValue(size_t i, const char** type, const char** value) {
  if (!ensureFields()) return false;
  const Entry& e = entries_[i];
  if ((e.flags & (kTypeRead | kValueRead)) != (kTypeRead | kValueRead)) return false;
  *type = text(e.type);
  *value = text(e.value);
  return true;
}

bool HandlerIndex::fields(size_t i, HandlerFields* out) {
  if (!ensureFields()) return false;
  const Entry& e = entries_[i];
  if (!usable(e) || !readHook(i)) return false;
  const char* canonical = handler_type_name(handler_type_code(text(e.type)));
  if (canonical == nullptr || std::strcmp(canonical, text(e.type)) != 0) return false;
  *out = HandlerFields{canonical, text(e.hook), text(e.value)};
  return true;
}

HandlerIndex::Find HandlerIndex::find(const char* tmpl, const char* type_name, const char* target,
                                      const char* hook, std::string* found) {
  // Refusals are handler_find's to report.
  if (isEmpty(tmpl) || isEmpty(hook)) return Find::kAskStore;
  const unsigned code = handler_type_code(type_name);
  if (code == kHandlerTypeUnknown) return Find::kAskStore;
  const bool global = code == kHandlerGlobal;
  if (!global && isEmpty(target)) return Find::kAskStore;
  if (!ensureFields()) return Find::kAskStore;

  for (uint32_t d : damaged_) {
    if (mayDecide(entries_[d], tmpl, type_name, hook)) return Find::kAskStore;
  }
  // handler_find takes the first match in directory order: the lowest index.
  if (heads_.empty()) return Find::kNone;
  const uint32_t hash = keyHash(type_name, target, global);
  uint32_t best = 0;
  for (uint32_t next = heads_[hash & (heads_.size() - 1)]; next != 0;) {
    const uint32_t i = next - 1;
    const Entry& e = entries_[i];
    next = e.next;
    if ((e.flags & kGone) != 0 || e.hash != hash) continue;
    if (std::strcmp(text(e.type), type_name) != 0) continue;
    if (!global && strcasecmp(text(e.value), target) != 0) continue;
    if (std::strstr(text(e.name), tmpl) == nullptr) continue;
    if (!readHook(i)) return Find::kAskStore;  // the store search would stop here
    if (std::strcmp(text(e.hook), hook) != 0) continue;
    if (best == 0 || i + 1 < best) best = i + 1;
  }
  if (best == 0) return Find::kNone;
  try {
    found->assign(text(entries_[best - 1].name));
  } catch (const std::bad_alloc&) {
    return Find::kAskStore;
  }
  return Find::kFound;
}

void HandlerIndex::added(const char* name, const HandlerFields* written) {
  try {
    append(name);
    if (!fields_) return;  // read with all the others when first needed
    const size_t i = entries_.size() - 1;
    if (written == nullptr) {
      loadFields(i);
      return;
    }
    const uint32_t hook = store(written->hook, std::strlen(written->hook));
    const uint32_t type = store(written->type, std::strlen(written->type));
    const uint32_t value = store(written->value, std::strlen(written->value));
    setFields(i, kHookRead | kTypeRead | kValueRead, hook, type, value);
  } catch (const std::bad_alloc&) {
    broken_ = true;
  }
}

bool HandlerIndex::readsBackAs(const char* value) {
  if (isEmpty(value)) return false;
  const size_t len = std::strlen(value);
  return len < kHandlerParamMax && std::strchr(value, '\n') == nullptr && !isPosixSpace(value[0]) &&
         !isPosixSpace(value[len - 1]);
}

void HandlerIndex::forgetIfGone(size_t i) {
  struct stat st;
  if (::fstatat(info_.get(), name(i), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
    entries_[i].flags |= kGone;
}

uint32_t HandlerIndex::store(const char* s, size_t len) {
  const uint32_t offset = static_cast<uint32_t>(text_.size());
  text_.append(s, len);
  text_.push_back('\0');
  return offset;
}

void HandlerIndex::append(const char* name) {
  Entry e;
  e.name = store(name, std::strlen(name));
  entries_.push_back(e);
}

bool HandlerIndex::ensureFields() {
  if (broken_) return false;
  if (fields_) return true;
  try {
    text_.reserve(text_.size() * 4);
    for (size_t i = 0; i < entries_.size(); ++i) loadFields(i);
    fields_ = true;
  } catch (const std::bad_alloc&) {
    broken_ = true;
  }
  return fields_;
}

// Reads entry i's hook, type and value.
void HandlerIndex::loadFields(size_t i) {
  if ((entries_[i].flags & (kGone | kFieldsLoaded)) != 0) return;
  char path[kPathMax], buf[kReadMax];
  const char* start;
  size_t len;
  uint8_t flags = kFieldsLoaded;
  uint32_t hook = 0, type = 0, value = 0;
  // A small regular hook file is certain to read; its text waits until a
  // search needs it. Anything else is read now to learn whether it reads.
  struct stat st;
  if (handler_info_path(path, sizeof path, name(i), "hook")) {
    if (::fstatat(info_.get(), path + kRootLen, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(st.st_mode) && static_cast<size_t>(st.st_size) < kHandlerParamMax) {
      flags |= kHookPresent;
    } else if (readTrimmed(info_.get(), path + kRootLen, buf, &start, &len)) {
      hook = store(start, len);
      flags |= kHookRead;
    }
  }
  if (handler_info_path(path, sizeof path, name(i), "handler-type") &&
      readTrimmed(info_.get(), path + kRootLen, buf, &start, &len)) {
    type = store(start, len);
    flags |= kTypeRead;
    if (handler_info_path(path, sizeof path, name(i), text(type)) &&
        readTrimmed(info_.get(), path + kRootLen, buf, &start, &len)) {
      value = store(start, len);
      flags |= kValueRead;
    }
  }
  setFields(i, flags, hook, type, value);
  // A damaged entry is judged by its hook (mayDecide): read it now.
  if (!usable(entries_[i])) readHook(i);
}

// Reads entry i's hook text when it has only been seen to exist. false
// when it cannot be read cleanly after all.
bool HandlerIndex::readHook(size_t i) {
  Entry& e = entries_[i];
  if ((e.flags & kHookRead) != 0) return true;
  if ((e.flags & kHookPresent) == 0) return false;
  e.flags &= static_cast<uint8_t>(~kHookPresent);
  char path[kPathMax], buf[kReadMax];
  const char* start;
  size_t len;
  if (!handler_info_path(path, sizeof path, name(i), "hook") ||
      !readTrimmed(info_.get(), path + kRootLen, buf, &start, &len))
    return false;
  e.hook = store(start, len);
  e.flags |= kHookRead;
  return true;
}

// Files entry i under its key, or among the damaged entries when any of
// its fields could not be read cleanly.
void HandlerIndex::setFields(size_t i, uint8_t flags, uint32_t hook, uint32_t type,
                             uint32_t value) {
  Entry& e = entries_[i];
  e.hook = hook;
  e.type = type;
  e.value = value;
  e.flags |= flags | kFieldsLoaded;
  if (!usable(e)) {
    damaged_.push_back(static_cast<uint32_t>(i));
    return;
  }
  e.hash = keyHash(text(type), text(value), isGlobal(text(type)));
  // Entry i is not linked yet, so a rehash does not link it twice.
  if (2 * (indexed_ + 1) > heads_.size()) rehash(4 * (indexed_ + 1));
  link(static_cast<uint32_t>(i));
  ++indexed_;
}

void HandlerIndex::link(uint32_t i) {
  Entry& e = entries_[i];
  uint32_t& head = heads_[e.hash & (heads_.size() - 1)];
  e.next = head;
  e.flags |= kLinked;
  head = i + 1;
}

// Buckets are a power of two in number, at least twice the indexed entries.
void HandlerIndex::rehash(size_t want) {
  size_t buckets = kMinBuckets;
  while (buckets < want) buckets *= 2;
  heads_.assign(buckets, 0);
  for (size_t i = 0; i < entries_.size(); ++i) {
    if ((entries_[i].flags & kLinked) != 0) link(static_cast<uint32_t>(i));
  }
}

// Whether a damaged entry could decide handler_find's answer: it could
// unless its name lacks the template or a field it has read excludes it
// before handler_find would reach the field it lacks.
bool HandlerIndex::mayDecide(const Entry& e, const char* tmpl, const char* type_name,
                             const char* hook) const {
  if ((e.flags & kGone) != 0 || std::strstr(text(e.name), tmpl) == nullptr) return false;
  if ((e.flags & kHookRead) == 0) return true;
  if (std::strcmp(text(e.hook), hook) != 0) return false;
  if ((e.flags & kTypeRead) == 0) return true;
  return std::strcmp(text(e.type), type_name) == 0;
}

}  // namespace handlers
}  // namespace zanth
