// The one-name form of the domain check: where a name lives now (maps, mail
// directory, authentication database, handlers), whether the places agree,
// and, when they do not, the rename command that brings them under one
// name. Read-only; what cannot be read becomes a failure finding.
#ifndef MXKEEP_CLI_NAME_LOCATOR_H
#define MXKEEP_CLI_NAME_LOCATOR_H

#include <string>

#include "cli/check_report.h"

namespace zanth {
namespace cli {

// checkName - where name (ASCII) lives now, and whether the places agree.
CheckReport checkName(const std::string& name);

}  // namespace cli
}  // namespace zanth

#endif  // MXKEEP_CLI_NAME_LOCATOR_H
