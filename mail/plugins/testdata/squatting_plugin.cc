// Test plugin: a service that takes the old domain's mail directory name
// for itself (a non-empty directory) and then refuses the rename, so that
// putting the mail directory back cannot succeed.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "mail/plugins/rename_plugin.h"

int rename_domain(const char* old_domain, const char*) {
  std::string dir = std::string("/var/qmail/mailnames/") + old_domain;
  ::mkdir(dir.c_str(), 0755);
  FILE* f = std::fopen((dir + "/squatter").c_str(), "w");
  if (f != nullptr) std::fclose(f);
  return 1;
}
