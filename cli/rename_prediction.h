// The two-name form of the domain check: what renaming one name to another
// would do at each place, in the rename's order, asked with the rename's
// own filters and rules, and the hazards and failures it would meet there.
// Read-only; what cannot be read becomes a failure finding.
#ifndef MXKEEP_CLI_RENAME_PREDICTION_H
#define MXKEEP_CLI_RENAME_PREDICTION_H

#include <string>

#include "cli/check_report.h"

namespace zanth {
namespace cli {

// checkRename - what renaming oldName to newName (ASCII) would do.
CheckReport checkRename(const std::string& oldName, const std::string& newName);

}  // namespace cli
}  // namespace zanth

#endif  // MXKEEP_CLI_RENAME_PREDICTION_H
