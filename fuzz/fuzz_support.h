// Shared support of the fuzz targets: the input as a FILE, and the check of
// a property of the code under test, which aborts (the fuzzer records that
// as a crash, with its input) when the property does not hold.
#ifndef MXKEEP_FUZZ_FUZZ_SUPPORT_H
#define MXKEEP_FUZZ_FUZZ_SUPPORT_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "common/syscall.h"

namespace fuzz {

// An open FILE reading a copy of the input, for parsers that read a file
// or a child's output; null for an empty input, which fmemopen refuses.
class MemoryFile final {
 public:
  MemoryFile(const uint8_t* data, size_t size)
      : text_(reinterpret_cast<const char*>(data), size),
        file_(size == 0 ? nullptr : fmemopen(&text_[0], text_.size(), "r")) {}
  // The FILE reads text_ in place: neither may move without the other.
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  FILE* get() const { return file_.get(); }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
  zanth::UniqueFile file_;
};

// Reports a property that does not hold and aborts.
[[noreturn]] inline void fail(const char* property, const std::string& detail) {
  std::string text = std::string("property violated: ") + property + "\n" + detail + "\n";
  if (::write(2, text.data(), text.size()) < 0) std::abort();
  std::abort();
}

}  // namespace fuzz

#define FUZZ_REQUIRE(condition, detail) \
  do {                                  \
    if (!(condition)) ::fuzz::fail(#condition, (detail)); \
  } while (0)

#endif  // MXKEEP_FUZZ_FUZZ_SUPPORT_H
