// Character classes as the default POSIX locale has them, whatever locale
// the process runs in: configuration, handler files and map records are
// read the same way everywhere. Also the two null-tolerant questions the
// procedural code asks of a C string argument.
#ifndef MXKEEP_COMMON_CHARS_H
#define MXKEEP_COMMON_CHARS_H

namespace zanth {

// isPosixSpace - blank, tab, line feed, vertical tab, form feed or return.
inline bool isPosixSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// shown - s, or "(null)" for a null s: the text printf has always printed
// for a null %s, made explicit because passing null there is undefined.
inline const char* shown(const char* s) { return s != nullptr ? s : "(null)"; }

// isEmpty - whether s is null or the empty string.
inline bool isEmpty(const char* s) { return s == nullptr || *s == '\0'; }

}  // namespace zanth

#endif  // MXKEEP_COMMON_CHARS_H
