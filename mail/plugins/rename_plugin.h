// The entry point every domain rename plugin exports: a loadable module
// in the plugin directory defines rename_domain with C linkage. It gets the
// old and the new mail domain name in ASCII (IDNA) form and returns 0 on
// success; any other value fails the rename. The value becomes the exit
// status of the child process the module runs in, so only its low eight
// bits count.
#ifndef MXKEEP_MAIL_PLUGINS_RENAME_PLUGIN_H
#define MXKEEP_MAIL_PLUGINS_RENAME_PLUGIN_H

// The symbol the runner looks up in each module.
constexpr char kRenamePluginEntry[] = "rename_domain";

extern "C" {
using rename_domain_fn = int (*)(const char* old_domain, const char* new_domain);

__attribute__((visibility("default"))) int rename_domain(const char* old_domain,
                                                         const char* new_domain);
}

#endif  // MXKEEP_MAIL_PLUGINS_RENAME_PLUGIN_H
