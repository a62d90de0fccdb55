// Fuzz target of the reader of the feature query's output that tells which
// mail server is installed. Checks that any output gives 0, 1 or -1, and a
// style only when some line starts with the SMTP server key.
#include <cstdint>
#include <cstdio>
#include <string>

#include "fuzz/fuzz_support.h"
#include "mail/auth/auth_db.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::silenceDiagnostics();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;  // fmemopen refuses an empty buffer
  std::string text(reinterpret_cast<const char*>(data), size);
  FILE* features = fmemopen(&text[0], text.size(), "r");
  if (features == nullptr) return 0;
  const int style = mail_auth_read_features(features);
  std::fclose(features);
  FUZZ_REQUIRE(style == -1 || style == kMailStyleQmail || style == kMailStylePostfix, text);
  if (style != -1) {
    const std::string key = "$features['SMTP_Server']";
    FUZZ_REQUIRE(text.compare(0, key.size(), key) == 0 || text.find("\n" + key) != std::string::npos,
                 text);
  }
  return 0;
}
