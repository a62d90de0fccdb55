// Test plugin: returns 256, which reaches the runner as exit status 0.
#include "mail/plugins/rename_plugin.h"

int rename_domain(const char*, const char*) { return 256; }
