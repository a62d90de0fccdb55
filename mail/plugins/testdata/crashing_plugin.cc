// Test plugin: dies of SIGSEGV, its default action restored over any sanitizer handler.
#include <csignal>

#include "mail/plugins/rename_plugin.h"

int rename_domain(const char*, const char*) {
  std::signal(SIGSEGV, SIG_DFL);
  return std::raise(SIGSEGV);
}
