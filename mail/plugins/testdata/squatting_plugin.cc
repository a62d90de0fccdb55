// Test plugin: fills the old domain's mail directory name, refuses the rename.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "mail/plugins/rename_plugin.h"

int rename_domain(const char* old_domain, const char*) {
  const std::string dir = std::string("/var/qmail/mailnames/") + old_domain;
  ::mkdir(dir.c_str(), 0755);
  if (FILE* f = std::fopen((dir + "/squatter").c_str(), "w")) std::fclose(f);
  return 1;
}
