// IDN conversion of domain names and mail addresses on GNU libidn (flags 0).
// Two layers: zanth::idn returns strings and throws IdnaError; the idn_*
// functions return malloc'ed strings the caller frees, or null (unchecked
// forms, the code kept in idn_last_error) or end the process (_safe forms).
#ifndef MXKEEP_COMMON_IDN_H
#define MXKEEP_COMMON_IDN_H

#include <string>

#include "common/errors.h"

namespace zanth {
namespace idn {

std::string toAscii(const std::string& name);
std::string toUtf8(const std::string& name);
// Converts the domain part only; text without "@" is returned unchanged.
std::string emailToAscii(const std::string& address);

}  // namespace idn
}  // namespace zanth

// libidn result code of the last failed procedural conversion; never cleared.
extern int idn_last_error;

char* idn_toascii(const char* name);
char* idn_toutf8(const char* name);
char* idn_email_toascii(const char* address);  // null when there is no "@"
char* idn_toascii_safe(const char* name);
char* idn_toutf8_safe(const char* name);
char* idn_email_toascii_safe(const char* address);

// Converts the host of a URL; the result lives in a static buffer that the
// next call overwrites. Null (reported) when the URL has no host.
const char* idn_url_toascii(const char* url);

const char* idn_strerror(int code);

#endif  // MXKEEP_COMMON_IDN_H
