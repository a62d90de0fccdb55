// Rename plugin runner: walks the plugin directory and runs each module in
// a forked child (no exec: the child keeps this process's image, loads the
// module, calls it once and exits with its result), so nothing a plugin
// does to memory, or a crash, reaches the rename tool itself.
#include "mail/plugins/plugin_runner.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "common/errors.h"
#include "common/syscall.h"
#include "mail/plugins/rename_plugin.h"
#include "common/syslog_trail.h"
#include "process/child_wait.h"
#include "process/termination.h"

namespace {

// flush_all - write out everything buffered, so that a forked child cannot
// print it a second time.
void flush_all() {
  zanth::errorStream.flush();
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
}

// end_plugin_child - registered in the plugin's child before the module is
// loaded, so that a plugin calling exit() ends the child here, after its
// own exit handlers but before any of the tool's: those belong to the
// parent, whose state the child only shares by copy.
extern "C" void end_plugin_child(int status, void*) {
  std::fflush(nullptr);
  _exit(status);
}

// plugin_child - the body of the plugin's child; never returns into the
// tool's code, whatever the module does. An exception is a failure.
[[noreturn]] void plugin_child(const char* path, const char* old_domain, const char* new_domain) {
  zanth::process::defaultTerminationSignals();
  ::on_exit(end_plugin_child, nullptr);
  int result = 1;
  try {
    result = call_plugin(path, old_domain, new_domain);
  } catch (const std::exception& e) {
    plugin_log(LOG_ERR, "plugin '%s' threw an exception: %s\n", path, e.what());
  } catch (...) {
    plugin_log(LOG_ERR, "plugin '%s' threw an exception\n", path);
  }
  // The module has been unloaded, its destructors have run; what it
  // printed is flushed here. _exit rather than exit: the atexit handlers
  // and static destructors are this process's, not the plugin's.
  std::fflush(nullptr);
  _exit(result);
}

}  // namespace

void plugin_log(int priority, const char* format, ...) {
  if (priority >= LOG_WARNING) return;
  zanth::ErrnoSaver keep;
  va_list args;
  va_start(args, format);
  const std::string text = zanth::formatted(format, args);
  va_end(args);
  std::fputs(text.c_str(), stderr);
  zanth::trail::diagnostic(priority, text);
}

int call_plugin(const char* path, const char* old_domain, const char* new_domain) {
  // dlclose's error has nobody to go to once the plugin has been called.
  zanth::UniqueLibrary module(::dlopen(path, RTLD_LAZY));
  if (module.get() == nullptr) {
    plugin_log(LOG_ERR, "cannop load '%s' plugin: %s", path, ::dlerror());
    return 0;
  }
  ::dlerror();
  void* entry = ::dlsym(module.get(), kRenamePluginEntry);
  if (const char* error = ::dlerror()) {
    plugin_log(LOG_INFO, "plugin '%s' doesn't provide required 'rename_domain': %s", path, error);
    return 0;
  }
  return reinterpret_cast<rename_domain_fn>(entry)(old_domain, new_domain);
}

int run_plugin_in_child(const char* path, const char* old_domain, const char* new_domain) {
  flush_all();
  pid_t pid = ::fork();
  if (pid < 0) {
    plugin_log(LOG_ERR, "cannot fork: %s\n", std::strerror(errno));
    return 1;
  }
  if (pid == 0) plugin_child(path, old_domain, new_domain);

  int status = 0;
  // A termination signal ends a plugin that does not return (see child_wait.h).
  if (zanth::process::waitChildOrEnd(pid, &status) <= 0) {
    plugin_log(LOG_ERR, "waitpid failed: %s\n", std::strerror(errno));
    return 1;
  }
  if (WIFSIGNALED(status)) {
    plugin_log(LOG_ERR, "child killed by signal: %d\n", WTERMSIG(status));
    return 1;
  }
  if (!WIFEXITED(status)) {
    plugin_log(LOG_ERR, "unknown child behavior");
    return 1;
  }
  plugin_log(LOG_DEBUG, "child exited with status: %d\n", WEXITSTATUS(status));
  return WEXITSTATUS(status) != 0 ? 1 : 0;
}

namespace {

// walk_plugins - calls visit(path, entry name) for each plugin of the
// directory, in directory order, while it returns true. One of the outcomes
// of list_rename_plugins; the entry name whose path was too long in bad.
template <class Visit>
int walk_plugins(Visit visit, std::string* bad) {
  struct stat st;
  if (::stat(kRenamePluginDir, &st) != 0 || !S_ISDIR(st.st_mode)) return kPluginDirMissing;
  zanth::UniqueDir dir(::opendir(kRenamePluginDir));
  if (dir.get() == nullptr) return kPluginDirUnreadable;

  char path[zanth::kPathMax];
  while (const struct dirent* entry = ::readdir(dir.get())) {
    if (!zanth::path_format(path, sizeof path, "%s/%s", kRenamePluginDir, entry->d_name)) {
      *bad = entry->d_name;
      return kPluginPathTooLong;
    }
    // Names, suffixes and modes do not matter: whatever is a regular file
    // once links are followed is a plugin.
    if (::stat(path, &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (!visit(path, entry->d_name)) break;
  }
  return kPluginsListed;
}

}  // namespace

int list_rename_plugins(std::vector<std::string>* paths) {
  std::string bad;
  return walk_plugins(
      [paths](const char* path, const char*) {
        paths->push_back(path);
        return true;
      },
      &bad);
}

int run_rename_plugins(const char* old_domain, const char* new_domain) {
  int failed = 0;
  std::string bad;
  const int walked = walk_plugins(
      [&](const char* path, const char* name) {
        plugin_log(LOG_DEBUG, "call plugin '%s'", path);
        int status = run_plugin_in_child(path, old_domain, new_domain);
        if (status != 0) {
          plugin_log(LOG_ERR, "plugin '%s' failed with status '%d'\n", name, status);
          failed = 1;
          return false;
        }
        plugin_log(LOG_DEBUG, "plugin '%s' succeeded", path);
        // A termination signal held during this plugin ends the run here;
        // the caller reports the signal.
        if (zanth::process::heldTerminationSignal() != 0) {
          failed = 1;
          return false;
        }
        return true;
      },
      &bad);
  switch (walked) {
    case kPluginDirMissing:
      plugin_log(LOG_ERR, "plugin directory '%s' not exists or not directory", kRenamePluginDir);
      return 1;
    case kPluginDirUnreadable:
      plugin_log(LOG_ERR, "cannot open plugins dir '%s'", kRenamePluginDir);
      return 1;
    case kPluginPathTooLong:
      plugin_log(LOG_ERR, "path '%s/%s' is too long", kRenamePluginDir, bad.c_str());
      return 1;
    default:
      return failed;
  }
}
