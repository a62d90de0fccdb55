// Start-up of every fuzz target: routes the library's diagnostics away, so
// that a run is not slowed down by millions of expected messages. The
// sanitizers and the fuzzer write to descriptor 2 directly, so their
// reports still show.
#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <streambuf>

#include "common/mail_log.h"

namespace {

// Formats each message, so that a wrong argument for its format is still
// read (and caught by the sanitizers), then drops it.
void formatAndDrop(int, const char* format, ...) {
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

}  // namespace

// mail_log, std::clog, std::cerr and stdio's stdout and stderr.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static NullBuffer null;
  mail_log = formatAndDrop;
  std::clog.rdbuf(&null);
  std::cerr.rdbuf(&null);
  if (FILE* sink = std::fopen("/dev/null", "w")) {
    stdout = sink;
    stderr = sink;
  }
  return 0;
}
