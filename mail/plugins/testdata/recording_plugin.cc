// Test plugin: appends "<module path> <old> <new>" to the record file.
#include <dlfcn.h>

#include <cstdio>

#include "mail/plugins/rename_plugin.h"

int rename_domain(const char* old_domain, const char* new_domain) {
  Dl_info self;
  if (dladdr(reinterpret_cast<void*>(&rename_domain), &self) == 0) return 1;
  FILE* record = std::fopen(MXKEEP_PLUGIN_RECORD, "a");
  if (record == nullptr) return 1;
  std::fprintf(record, "%s %s %s\n", self.dli_fname, old_domain, new_domain);
  return std::fclose(record) == 0 ? 0 : 1;
}
