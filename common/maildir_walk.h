// Maildir usage counting for the quota file, and the apparent size of a
// directory tree. Procedural: 0 / -1 (or a size / -1) with errno; the
// walk reports its few fixed messages through report_error and goes on,
// the size-from-name rule and the tree size report nothing.
#ifndef MXKEEP_COMMON_MAILDIR_WALK_H
#define MXKEEP_COMMON_MAILDIR_WALK_H

#include <sys/types.h>

#include <ctime>

// maildir_size_from_name - the size a message file's name declares: the
// decimal number after the first ",S=" that is followed by digits ending at
// the end of the name or at ":" ("1.M2.host,S=1000:2,S" declares 1000).
// True with *size set; false when no such part is there or the number does
// not fit a long long. Pure: no system calls, errno untouched.
bool maildir_size_from_name(const char* name, long long* size);

#endif  // MXKEEP_COMMON_MAILDIR_WALK_H
