// Test plugin: tells the test it runs (a line on the fifo /run/ready),
// then never returns and ignores SIGTERM, as a plugin stuck on a dead
// service may.
#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "mail/plugins/rename_plugin.h"

int rename_domain(const char*, const char*) {
  ::signal(SIGTERM, SIG_IGN);
  if (FILE* ready = std::fopen("/run/ready", "w")) {
    std::fputs("stalling\n", ready);
    std::fclose(ready);
  }
  for (;;) ::pause();
}
