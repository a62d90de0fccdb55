// Test plugin: ends its process with exit() after printing without a line
// end, as a careless service might.
#include <cstdio>
#include <cstdlib>

#include "mail/plugins/rename_plugin.h"

int rename_domain(const char*, const char*) {
  std::printf("the exiting plugin ran");
  std::exit(0);
}
