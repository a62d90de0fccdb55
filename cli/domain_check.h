// The mxkeep_domain_check command: a read-only look at every place a domain
// rename touches. With two names, what the rename would do there and the
// hazards it would meet (rename_prediction.h); with one, where that name
// lives now and how to bring every place under one name (name_locator.h).
// Writes nothing and holds no lock but for an instant; findings go to
// standard output as text or JSON.
#ifndef MXKEEP_CLI_DOMAIN_CHECK_H
#define MXKEEP_CLI_DOMAIN_CHECK_H

namespace zanth {
namespace cli {

// Process entry; returns the exit status.
int domainCheckMain(int argc, char** argv);

}  // namespace cli
}  // namespace zanth

#endif  // MXKEEP_CLI_DOMAIN_CHECK_H
