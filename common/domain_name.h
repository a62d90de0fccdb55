// Domain names as the rename writes them into every place: converted to
// ASCII, in lower case (map keys fold case, paths and database rows do
// not, so only one spelling may ever be written), and a host name. A name
// that is anything else would write records, paths or rows nobody asked
// for, so it is refused before any place is touched.
#ifndef MXKEEP_COMMON_DOMAIN_NAME_H
#define MXKEEP_COMMON_DOMAIN_NAME_H

#include <stdexcept>
#include <string>

namespace zanth {

// A rename refused before any place was touched: a name that is no host
// name, or two names that both live in the same place.
class RenameRefusal final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~RenameRefusal() override;
};

namespace domain_name {

// lowered - name with its ASCII letters in lower case.
std::string lowered(std::string name);

// hostNameFault - why name is not a host name (labels of letters, digits
// and hyphens, 1-63 characters, no hyphen at either end, 253 characters at
// most, no trailing dot); empty when it is one.
std::string hostNameFault(const std::string& name);

// quoted - name in single quotes, fit for one line of a diagnostic: bytes
// outside printable ASCII, the quote and the backslash as C escapes.
std::string quoted(const std::string& name);

// normalized - `given` converted to ASCII (libidn) and lowered; throws
// idn::IdnaError for a name the conversion refuses and RenameRefusal,
// naming it by `role` ("old", "new"), for one that is no host name.
std::string normalized(const std::string& given, const char* role);

}  // namespace domain_name
}  // namespace zanth

#endif  // MXKEEP_COMMON_DOMAIN_NAME_H
