// Exceptions of the Postfix side of the mail layer. They carry only their
// message; the code that throws them builds the text.
#ifndef MXKEEP_MAIL_POSTFIX_ERRORS_H
#define MXKEEP_MAIL_POSTFIX_ERRORS_H

#include <stdexcept>
#include <string>

namespace zanth {
namespace mail {
namespace postfix {

class PostfixError : public std::runtime_error {
 public:
  explicit PostfixError(const std::string& message) : std::runtime_error(message) {}
};

class PostfixDatabaseError : public PostfixError {
 public:
  explicit PostfixDatabaseError(const std::string& message) : PostfixError(message) {}
};

class PostfixAuthenticationDBError final : public PostfixDatabaseError {
 public:
  explicit PostfixAuthenticationDBError(const std::string& message)
      : PostfixDatabaseError(message) {}
};

class PostfixConfigurationError final : public PostfixError {
 public:
  explicit PostfixConfigurationError(const std::string& message) : PostfixError(message) {}
};

}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_ERRORS_H
