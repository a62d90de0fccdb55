// Shared support of the fuzz targets: silences the library's diagnostics so
// that a run is not slowed down by millions of expected messages, and checks
// a property of the code under test, aborting (which the fuzzer records as a
// crash, with its input) when it does not hold.
#ifndef MXKEEP_FUZZ_FUZZ_SUPPORT_H
#define MXKEEP_FUZZ_FUZZ_SUPPORT_H

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <streambuf>
#include <string>

#include <unistd.h>

#include "common/mail_log.h"

namespace fuzz {

// Formats each message, so that a wrong argument for its format is still
// read (and caught by the sanitizers), then drops it.
inline void formatAndDrop(int, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
}

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Routes mail_log, std::clog and stdio's stdout and stderr away. The
// sanitizers and the fuzzer itself write to descriptor 2 directly, so their
// reports still show.
inline void silenceDiagnostics() {
  static NullBuffer null;
  mail_log = formatAndDrop;
  std::clog.rdbuf(&null);
  std::cerr.rdbuf(&null);
  if (FILE* sink = std::fopen("/dev/null", "w")) {
    stdout = sink;
    stderr = sink;
  }
}

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
