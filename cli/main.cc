// mxkeep_domain_rename: renames a mail domain everywhere the mail system
// knows it. Run by the control panel as root with the old and the new name.
#include "cli/domain_rename.h"

int main(int argc, char** argv) { return zanth::cli::domainRenameMain(argc, argv); }
