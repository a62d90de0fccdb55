// Test plugin: a service whose C++ code throws out of the entry point.
#include <stdexcept>

#include "mail/plugins/rename_plugin.h"

int rename_domain(const char*, const char*) {
  throw std::runtime_error("refused by the service");
}
