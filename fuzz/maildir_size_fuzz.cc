// Fuzz target of the Maildir size-from-name rule: any bytes as a message
// file name. The expected answer is read off the name as text: the first
// ",S=" followed by digits that end at the end of the name or at ":"
// declares the size, unless the number is beyond the largest long long
// (then the count falls back to lstat, as it does without such a part).
#include <cstdint>
#include <string>

#include "common/maildir_walk.h"
#include "fuzz/fuzz_support.h"

namespace {

const std::string kLargest = "9223372036854775807";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The digits of the declared size, leading zeros dropped ("0" for zero),
// or "" when the name declares none.
std::string declaredDigits(const std::string& name) {
  for (size_t tag = name.find(",S="); tag != std::string::npos; tag = name.find(",S=", tag + 1)) {
    size_t end = tag + 3;
    while (end < name.size() && isDigit(name[end])) ++end;
    if (end == tag + 3 || (end < name.size() && name[end] != ':')) continue;
    std::string digits = name.substr(tag + 3, end - tag - 3);
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
    return digits;
  }
  return "";
}

bool fitsLongLong(const std::string& digits) {
  return digits.size() < kLargest.size() ||
         (digits.size() == kLargest.size() && digits <= kLargest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);
  const std::string name = raw.substr(0, raw.find('\0'));  // a file name has no NUL
  long long declared = -1;
  const bool found = maildir_size_from_name(name.c_str(), &declared);
  const std::string digits = declaredDigits(name);
  const bool expected = !digits.empty() && fitsLongLong(digits);
  FUZZ_REQUIRE(found == expected, name);
  if (found) FUZZ_REQUIRE(std::to_string(declared) == digits, name + "\n" + std::to_string(declared));
  return 0;
}
