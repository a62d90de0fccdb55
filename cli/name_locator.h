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

// The verdict of checkName for a name found in no place at all.
constexpr char kInNoPlace[] = "the name is in no place";

}  // namespace cli
}  // namespace zanth

#endif  // MXKEEP_CLI_NAME_LOCATOR_H
