// Start-up of every fuzz target: routes the library's diagnostics away, so
// that a run is not slowed down by millions of expected messages. The
// sanitizers and the fuzzer write to descriptor 2 directly, so their
// reports still show.
#include <cstdio>
#include <iostream>
#include <streambuf>

#include "common/mail_log.h"

namespace {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

}  // namespace

// mail_log, std::clog, std::cerr and stdio's stdout and stderr.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static NullBuffer null;
  static MailLogCapture dropped(MailLogCapture::Keep::kNothing);
  std::clog.rdbuf(&null);
  std::cerr.rdbuf(&null);
  if (FILE* sink = std::fopen("/dev/null", "w")) {
    stdout = sink;
    stderr = sink;
  }
  return 0;
}
