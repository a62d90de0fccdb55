// Test plugin: a service that refuses the rename.
#include "mail/plugins/rename_plugin.h"

int rename_domain(const char*, const char*) { return 3; }
