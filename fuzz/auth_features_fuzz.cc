// Fuzz target of the reader of the feature query's output that tells which
// mail server is installed. Checks that any output gives 0, 1 or -1, and a
// style only when some line starts with the SMTP server key.
#include <cstdint>
#include <cstdio>
#include <string>

#include "fuzz/fuzz_support.h"
#include "mail/auth/auth_db.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzz::MemoryFile features(data, size);
  if (features.get() == nullptr) return 0;
  const std::string& text = features.text();
  const int style = mail_auth_read_features(features.get());
  FUZZ_REQUIRE(style == -1 || style == kMailStyleQmail || style == kMailStylePostfix, text);
  if (style != -1) {
    const std::string key = "$features['SMTP_Server']";
    FUZZ_REQUIRE(text.compare(0, key.size(), key) == 0 || text.find("\n" + key) != std::string::npos,
                 text);
  }
  return 0;
}
