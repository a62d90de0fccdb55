// Rename plugins: services that keep their own copy of mail domain names
// drop a loadable module into the plugin directory; on a domain rename each
// module is run, one after another, in a child process of its own, and the
// run stops at the first that fails. Procedural: results are 0 / 1, and
// diagnostics go to standard error through plugin_log.
#ifndef MXKEEP_MAIL_PLUGINS_PLUGIN_RUNNER_H
#define MXKEEP_MAIL_PLUGINS_PLUGIN_RUNNER_H

#include <string>
#include <vector>

#include "common/fixed_paths.h"

// Where the plugins live. A missing directory fails the rename.
constexpr const char* kRenamePluginDir = zanth::paths::kRenamePluginDir;

// run_rename_plugins - run every regular file of the plugin directory (in
// directory order, symbolic links followed) as a plugin. 0 when all
// succeeded or there were none; 1 on the first failure or a directory
// problem, and the plugins after it are not run.
int run_rename_plugins(const char* old_domain, const char* new_domain);

// Outcomes of list_rename_plugins.
constexpr int kPluginsListed = 0;
constexpr int kPluginDirMissing = 1;     // missing, or not a directory
constexpr int kPluginDirUnreadable = 2;  // cannot be opened
constexpr int kPluginPathTooLong = 3;    // an entry's path does not fit

// list_rename_plugins - append to paths the plugins run_rename_plugins would
// run, in the order it would run them. One of the outcomes above; on a
// path too long, the paths before it. Reports nothing: the caller does.
int list_rename_plugins(std::vector<std::string>* paths);

// run_plugin_in_child - fork, run call_plugin in the child and wait for
// it. 0 when the child exited with status 0, 1 otherwise.
int run_plugin_in_child(const char* path, const char* old_domain, const char* new_domain);

// call_plugin - load the module at path and call its entry point; the
// entry point's result. A file that cannot be loaded or lacks the entry
// point gives 0: it is not taken for a failing plugin.
int call_plugin(const char* path, const char* old_domain, const char* new_domain);

// plugin_log - print a message to standard error, as it is (no newline
// added), when priority is a syslog level below LOG_WARNING; others are
// dropped.
void plugin_log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

#endif  // MXKEEP_MAIL_PLUGINS_PLUGIN_RUNNER_H
