// Account lookup through the password database (getpwnam_r, so that no
// caller's static passwd record is overwritten).
#include "common/accounts.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace {
constexpr size_t kFallbackBufferSize = 16384;
}  // namespace

int account_ids(const char* name, uid_t* uid, gid_t* gid) {
  const long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : kFallbackBufferSize);
  struct passwd record;
  struct passwd* found = nullptr;
  int rc;
  while ((rc = ::getpwnam_r(name, &record, buffer.data(), buffer.size(), &found)) == ERANGE)
    buffer.resize(buffer.size() * 2);
  if (found == nullptr) {
    errno = rc != 0 ? rc : ENOENT;
    return -1;
  }
  *uid = found->pw_uid;
  *gid = found->pw_gid;
  return 0;
}
