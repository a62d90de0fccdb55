// Running Postfix's own programs (postmap, postconf, postfix, postqueue) as
// children: their standard output streamed or kept, their standard error
// kept as the failure text. A program that does not exit with 0 throws
// PostfixConfigurationError with what it wrote to standard error ("unknown
// error" when it wrote nothing); pipe and spawn failures pass through.
#ifndef MXKEEP_MAIL_POSTFIX_POSTFIX_PROGRAMS_H
#define MXKEEP_MAIL_POSTFIX_POSTFIX_PROGRAMS_H

#include <string>
#include <vector>

#include "process/pipe.h"

namespace zanth {
namespace mail {
namespace postfix {

// runPostfixProgram - runs argv (argv[0] is the program's path) with its
// standard output streamed to consumer, or kept and returned when consumer
// is null. Throws as the header says.
std::string runPostfixProgram(const std::vector<std::string>& argv,
                              const process::BlockConsumer* consumer = nullptr);

// postfixProgramStatus - runs argv with input on its standard input (none
// when empty) and its output kept in *out (when not null); returns its exit
// code, -1 when it did not exit (killed).
int postfixProgramStatus(const std::vector<std::string>& argv, std::string* out,
                         const std::string& input = std::string());

}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_POSTFIX_PROGRAMS_H
