// Fuzz target of the IDN wrappers: any bytes as a domain name, an address
// or a URL. Checks that both layers agree, that an ASCII form is pure ASCII
// and converts to itself again, and that an address keeps its local part.
#include <cstdint>
#include <string>

#include "common/idn.h"
#include "common/syscall.h"
#include "fuzz/fuzz_support.h"

namespace {

bool isAscii(const std::string& s) {
  for (unsigned char c : s)
    if (c >= 0x80) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);
  const std::string name = raw.substr(0, raw.find('\0'));  // the C string the wrappers see

  // The procedural layer's results, malloc'ed, or null on failure.
  const zanth::UniqueCString ascii(idn_toascii(name.c_str()));
  try {
    const std::string converted = zanth::idn::toAscii(name);
    FUZZ_REQUIRE(ascii && ascii.get() == converted, name);
    FUZZ_REQUIRE(isAscii(converted), name + "\n" + converted);
    FUZZ_REQUIRE(zanth::idn::toAscii(converted) == converted, name + "\n" + converted);
  } catch (const zanth::idn::IdnaError&) {
    FUZZ_REQUIRE(!ascii, name);
  }

  const zanth::UniqueCString utf8(idn_toutf8(name.c_str()));
  try {
    const std::string converted = zanth::idn::toUtf8(name);
    FUZZ_REQUIRE(utf8 && utf8.get() == converted, name);
  } catch (const zanth::idn::IdnaError&) {
    FUZZ_REQUIRE(!utf8, name);
  }

  const size_t at = name.find('@');
  const zanth::UniqueCString email(idn_email_toascii(name.c_str()));
  FUZZ_REQUIRE(static_cast<bool>(email) == (at != std::string::npos), name);
  try {
    const std::string converted = zanth::idn::emailToAscii(name);
    FUZZ_REQUIRE(converted.compare(0, at == std::string::npos ? name.size() : at + 1, name, 0,
                                   at == std::string::npos ? name.size() : at + 1) == 0,
                 name);
    if (at != std::string::npos) FUZZ_REQUIRE(email.get() == converted, name);
  } catch (const zanth::idn::IdnaError&) {
  }

  idn_url_toascii(name.c_str());
  return 0;
}
