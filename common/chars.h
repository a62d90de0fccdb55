// Character classes as the default POSIX locale has them, whatever locale
// the process runs in: configuration, handler files and map records are
// read the same way everywhere.
#ifndef MXKEEP_COMMON_CHARS_H
#define MXKEEP_COMMON_CHARS_H

namespace zanth {

// isPosixSpace - blank, tab, line feed, vertical tab, form feed or return.
inline bool isPosixSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace zanth

#endif  // MXKEEP_COMMON_CHARS_H
