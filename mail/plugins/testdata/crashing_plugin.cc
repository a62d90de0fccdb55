// Test plugin: dies of a segmentation fault. The default disposition is
// restored first, so that a crash handler of the host process (a sanitizer
// runtime) cannot turn the crash into an ordinary exit.
#include <csignal>

#include "mail/plugins/rename_plugin.h"

int rename_domain(const char*, const char*) {
  std::signal(SIGSEGV, SIG_DFL);
  std::raise(SIGSEGV);
  return 0;
}
