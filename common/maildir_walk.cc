// Maildir usage counting and directory tree sizes. The walks read
// directories through descriptors (openat, fstatat), so they neither
// change the working directory nor depend on path lengths below the top.
#include "common/maildir_walk.h"

#include <climits>
#include <cstring>

bool maildir_size_from_name(const char* name, long long* size) {
  static constexpr char kSizeTag[] = ",S=";
  for (const char* tag = std::strstr(name, kSizeTag); tag != nullptr;
       tag = std::strstr(tag + 1, kSizeTag)) {
    const char* p = tag + sizeof kSizeTag - 1;
    if (*p < '0' || *p > '9') continue;
    long long value = 0;
    bool fits = true;
    for (; *p >= '0' && *p <= '9'; ++p) {
      const int digit = *p - '0';
      if (value > (LLONG_MAX - digit) / 10) fits = false;
      if (fits) value = value * 10 + digit;
    }
    if (*p != '\0' && *p != ':') continue;
    if (!fits) return false;
    *size = value;
    return true;
  }
  return false;
}
