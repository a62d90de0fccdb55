// The mxkeep_domain_rename command: argument checks, usage text, the fixed
// order of the rename steps with the undo guard around the Postfix step, and
// the top-level catch that turns every failure into one "Fatal error: " line
// on the error stream and an exit status (0 success, 1 failure, 2 unknown).
#ifndef MXKEEP_CLI_DOMAIN_RENAME_H
#define MXKEEP_CLI_DOMAIN_RENAME_H

#include <exception>
#include <string>

namespace zanth {
namespace cli {

// Process entry; returns the exit status (the usage routine exits itself).
int domainRenameMain(int argc, char** argv);

// fatalText - "Fatal error: <type>(<what>)" of e, without a line end.
std::string fatalText(const std::exception& e);

// reportFatal - the "Fatal error: <type>(<what>)" line of e, and its
// traceback when it carries one, on the error stream.
void reportFatal(const std::exception& e);

// The rename steps on names as given; converts both to ASCII in place
// first. Throws on failure after undoing what the Postfix step changed.
void renameDomain(std::string& oldName, std::string& newName);

}  // namespace cli
}  // namespace zanth

#endif  // MXKEEP_CLI_DOMAIN_RENAME_H
