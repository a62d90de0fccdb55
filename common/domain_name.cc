// Host-name rules of the names a rename writes. See domain_name.h.
#include "common/domain_name.h"

#include <cstdio>

#include "common/idn.h"

namespace zanth {

RenameRefusal::~RenameRefusal() = default;

namespace domain_name {
namespace {

constexpr size_t kMaxName = 253;
constexpr size_t kMaxLabel = 63;

bool isLower(char c) { return c >= 'a' && c <= 'z'; }
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// labelFault - why one label (without its dots) is not a host-name label.
const char* labelFault(const std::string& label) {
  if (label.empty()) return "it has an empty label";
  if (label.size() > kMaxLabel) return "it has a label longer than 63 characters";
  for (char c : label)
    if (!isLower(c) && !isUpper(c) && !isDigit(c) && c != '-')
      return "it has a character other than a letter, a digit, a hyphen or a dot";
  if (label.front() == '-' || label.back() == '-')
    return "it has a label that begins or ends with a hyphen";
  return nullptr;
}

}  // namespace

std::string lowered(std::string name) {
  for (char& c : name)
    if (isUpper(c)) c = static_cast<char>(c - 'A' + 'a');
  return name;
}

std::string hostNameFault(const std::string& name) {
  if (name.size() > kMaxName) return "it is longer than 253 characters";
  if (!name.empty() && name.back() == '.') return "it ends with a dot";
  std::string::size_type begin = 0;
  for (;;) {
    const std::string::size_type dot = name.find('.', begin);
    if (const char* fault = labelFault(name.substr(begin, dot - begin))) return fault;
    if (dot == std::string::npos) return "";
    begin = dot + 1;
  }
}

std::string quoted(const std::string& name) {
  std::string out = "'";
  for (unsigned char c : name) {
    if (c == '\'' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c > 0x7e) {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "'";
}

std::string normalized(const std::string& given, const char* role) {
  const std::string name = lowered(idn::toAscii(given));
  const std::string fault = hostNameFault(name);
  if (!fault.empty())
    throw RenameRefusal(std::string(role) + " domain name " + quoted(given) +
                        " is not a host name: " + fault);
  return name;
}

}  // namespace domain_name
}  // namespace zanth
