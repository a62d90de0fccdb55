// Handler index: what a mass operation needs of the whole handler store,
// read once (names in directory order, and each handler's hook, type and
// target value) so that the copy search of every re-target need not read
// the store again. Part of the store layer. Never logs: an entry whose
// files cannot be read cleanly is marked, and the questions it could
// change are handed back to the store's own readers (handler_param,
// handler_find), which then report exactly as they always do.
#ifndef MXKEEP_MAIL_HANDLERS_HANDLER_INDEX_H
#define MXKEEP_MAIL_HANDLERS_HANDLER_INDEX_H

#include <cstddef>
#include <cstdint>

#include <string>
#include <vector>

#include "common/syscall.h"

namespace zanth {
namespace handlers {

// A handler's type, hook and target value as the store reads them back.
struct HandlerFields {
  const char* type;
  const char* hook;
  const char* value;
};

// Usage, inside one mass operation:
//   HandlerIndex index;
//   if (!index.load()) ...report errno...
//   for (size_t i = 0, n = index.size(); i < n; ++i) ...index.name(i)...
// A handler created meanwhile is announced with added(), one deleted with
// forgetIfGone(); handlers created meanwhile are never among the first n.
// Not thread-safe; names and values are valid until the next non-const call.
class HandlerIndex final {
 public:
  HandlerIndex() = default;
  HandlerIndex(const HandlerIndex&) = delete;
  HandlerIndex& operator=(const HandlerIndex&) = delete;

  // Reads the handler names under the info root in directory order. false
  // with errno set when the root cannot be read.
  bool load();

  // Number of entries, those added since load() included.
  size_t size() const { return entries_.size(); }
  const char* name(size_t i) const { return text(entries_[i].name); }
  // Whether entry i has been deleted since it was indexed.
  bool gone(size_t i) const { return (entries_[i].flags & kGone) != 0; }

  // Entry i's "handler-type" and the value file that type names, as
  // handler_param reads them; false when either cannot be read cleanly
  // (missing, unreadable, too long, odd bytes) and the caller must read
  // them itself to get the store's own report.
  bool typeAndValue(size_t i, const char** type, const char** value);

  // Entry i's fields when all three read cleanly and the type is in its
  // canonical form, so that the value file is the one the type names.
  bool fields(size_t i, HandlerFields* out);

  enum class Find { kFound, kNone, kAskStore };
  // handler_find's answer for these arguments: kFound with the name in
  // *found, or kNone. kAskStore when the index cannot be sure: arguments
  // handler_find would refuse, or a damaged entry that could change its
  // answer; the caller then asks handler_find itself.
  Find find(const char* tmpl, const char* type_name, const char* target, const char* hook,
            std::string* found);

  // A handler description created since load(), complete or not; written,
  // when given, holds its fields as they read back, sparing the reads.
  void added(const char* name, const HandlerFields* written = nullptr);

  // Whether value, written as one line, reads back unchanged.
  static bool readsBackAs(const char* value);
  // Marks entry i gone when its description directory no longer exists.
  void forgetIfGone(size_t i);

 private:
  static constexpr uint8_t kHookRead = 1;
  static constexpr uint8_t kTypeRead = 2;
  static constexpr uint8_t kValueRead = 4;
  static constexpr uint8_t kFieldsLoaded = 8;
  static constexpr uint8_t kGone = 16;
  static constexpr uint8_t kHookPresent = 32;  // certain to read; not read yet
  static constexpr uint8_t kLinked = 64;

  // Offsets into text_ of NUL-terminated strings: one arena instead of four
  // strings per handler keeps a store of 100,000 handlers to a few MB.
  // next chains the entries of one hash bucket (index + 1; 0 ends it).
  struct Entry {
    uint32_t name = 0, hook = 0, type = 0, value = 0;
    uint32_t hash = 0, next = 0;
    uint8_t flags = 0;
  };

  const char* text(uint32_t offset) const { return text_.data() + offset; }
  // Whether an entry's type and value read cleanly and its hook does or will.
  static bool usable(const Entry& e) {
    return (e.flags & (kTypeRead | kValueRead)) == (kTypeRead | kValueRead) &&
           (e.flags & (kHookRead | kHookPresent)) != 0;
  }
  bool readHook(size_t i);
  uint32_t store(const char* s, size_t len);
  void append(const char* name);
  bool ensureFields();
  void loadFields(size_t i);
  void setFields(size_t i, uint8_t flags, uint32_t hook, uint32_t type, uint32_t value);
  void link(uint32_t i);
  void rehash(size_t want);
  bool mayDecide(const Entry& e, const char* tmpl, const char* type_name,
                 const char* hook) const;

  UniqueFd info_;  // the info root, which every read is relative to
  std::string text_;
  std::vector<Entry> entries_;
  // Buckets of the hash of (type, value in lower case): first entry
  // index + 1, chained through Entry::next; collisions are sorted out by
  // comparing the entries themselves.
  std::vector<uint32_t> heads_;
  size_t indexed_ = 0;
  std::vector<uint32_t> damaged_;
  bool fields_ = false;
  bool broken_ = false;  // out of memory: every question goes to the store
};

}  // namespace handlers
}  // namespace zanth

#endif  // MXKEEP_MAIL_HANDLERS_HANDLER_INDEX_H
