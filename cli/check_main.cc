// mxkeep_domain_check: shows, without changing anything, what a domain
// rename would do, or where a domain lives after a failed one.
#include "cli/domain_check.h"

int main(int argc, char** argv) { return zanth::cli::domainCheckMain(argc, argv); }
