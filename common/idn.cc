// IDN conversion on GNU libidn 1.x. Every conversion uses flags 0: no
// unassigned code points, no STD3 ASCII rules.
#include "common/idn.h"

#include <idna.h>
#include <regex.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/chars.h"
#include "common/syscall.h"

namespace zanth {
namespace idn {
namespace {

using Converter = int (*)(const char*, char**, int);

std::string convert(Converter fn, const std::string& input) {
  char* output = nullptr;
  int rc = fn(input.c_str(), &output, 0);
  if (rc != IDNA_SUCCESS) throw IdnaError(rc);
  if (output == nullptr) throw std::bad_alloc();
  const UniqueCString owner(output);
  return std::string(output);
}

}  // namespace

std::string toAscii(const std::string& name) { return convert(idna_to_ascii_8z, name); }

std::string toUtf8(const std::string& name) { return convert(idna_to_unicode_8z8z, name); }

std::string emailToAscii(const std::string& address) {
  std::string::size_type at = address.find('@');
  if (at == std::string::npos) return address;
  return address.substr(0, at + 1) + toAscii(address.substr(at + 1));
}

}  // namespace idn
}  // namespace zanth

int idn_last_error = 0;

namespace {

constexpr size_t kUrlBufferSize = 8192;
constexpr int kUrlMatches = 5;

// Unchecked conversion: out of memory ends the process, other failures
// record the code and give null.
char* convert_unchecked(int (*fn)(const char*, char**, int), const char* input) {
  char* output = nullptr;
  int rc = fn(input, &output, 0);
  if (rc == IDNA_MALLOC_ERROR) report_fatal("Allocation failed");
  if (rc != IDNA_SUCCESS) {
    idn_last_error = rc;
    std::free(output);
    return nullptr;
  }
  return output;
}

char* convert_checked(int (*fn)(const char*, char**, int), const char* fname,
                      const char* input) {
  char* output = convert_unchecked(fn, input);
  if (output == nullptr)
    report_fatal("%s(%s) failed: %s", fname, input, idn_strerror(idn_last_error));
  return output;
}

char* join_address(const char* address, const char* at, const char* domain) {
  char* result = nullptr;
  if (asprintf(&result, "%.*s@%s", static_cast<int>(at - address), address, domain) < 0)
    report_fatal("Cannot allocate memory: %s", std::strerror(errno));
  return result;
}

}  // namespace

const char* idn_strerror(int code) { return zanth::idn::idnaErrorText(code); }

char* idn_toascii(const char* name) { return convert_unchecked(idna_to_ascii_8z, name); }

char* idn_toutf8(const char* name) { return convert_unchecked(idna_to_unicode_8z8z, name); }

char* idn_toascii_safe(const char* name) {
  return convert_checked(idna_to_ascii_8z, "idn_toascii_safe", name);
}

char* idn_toutf8_safe(const char* name) {
  return convert_checked(idna_to_unicode_8z8z, "idn_toutf8_safe", name);
}

char* idn_email_toascii(const char* address) {
  const char* at = std::strchr(address, '@');
  if (at == nullptr) return nullptr;
  char* domain = idn_toascii(at + 1);
  // A failed domain still yields a string, with the text "(null)" in its
  // place, as callers have always seen it; they look at idn_last_error.
  char* result = join_address(address, at, zanth::shown(domain));
  std::free(domain);
  return result;
}

char* idn_email_toascii_safe(const char* address) {
  const char* at = std::strchr(address, '@');
  if (at == nullptr) return nullptr;
  char* domain = idn_toascii(at + 1);
  if (domain == nullptr)
    report_fatal("%s(%s) failed: %s", "idn_email_toascii_safe", address,
                 idn_strerror(idn_last_error));
  char* result = join_address(address, at, domain);
  std::free(domain);
  return result;
}

namespace {

// url_pattern - the URL pattern, compiled on first use and kept: a
// conversion per call would cost more than the conversion itself.
const regex_t& url_pattern() {
  static regex_t re;
  static const bool compiled = [] {
    int rc = regcomp(&re, "^(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?$", REG_EXTENDED);
    if (rc != 0) {
      char text[4096];
      regerror(rc, &re, text, sizeof text);
      report_fatal("regcomp() failed: %s", text);
    }
    return true;
  }();
  (void)compiled;
  return re;
}

}  // namespace

const char* idn_url_toascii(const char* url) {
  static char buffer[kUrlBufferSize];
  const regex_t& re = url_pattern();
  regmatch_t m[kUrlMatches];
  int rc = regexec(&re, url, kUrlMatches, m, 0);
  if (rc != 0) {
    char text[4096];
    regerror(rc, &re, text, sizeof text);
    report_error(kReportAndGoOn, kReportFlag, "regexec() failed: %s", text);
    return nullptr;
  }
  if (m[3].rm_so < 0) {
    report_error(kReportAndGoOn, kReportFlag, "no hostname found in URL");
    return nullptr;
  }
  auto part = [url, &m](int i) {
    return m[i].rm_so < 0 ? std::string() : std::string(url + m[i].rm_so, m[i].rm_eo - m[i].rm_so);
  };
  std::string host = part(3);
  char* ascii = nullptr;
  rc = idna_to_ascii_8z(host.c_str(), &ascii, 0);
  if (rc == IDNA_MALLOC_ERROR) report_fatal("Allocation failed");
  if (rc != IDNA_SUCCESS) {
    idn_last_error = rc;
    std::free(ascii);
    report_error(kReportAndGoOn, kReportFlag, "idn_toascii() failed: %s", idn_strerror(rc));
    return nullptr;
  }
  int n = std::snprintf(buffer, sizeof buffer, "%s%s%s%s", part(1).c_str(), part(2).c_str(),
                        ascii, part(4).c_str());
  std::free(ascii);
  if (n < 0 || static_cast<size_t>(n) >= sizeof buffer) {
    report_error(kReportAndGoOn, kReportFlag, "URL is too long to be converted: %s", url);
    return nullptr;
  }
  return buffer;
}
