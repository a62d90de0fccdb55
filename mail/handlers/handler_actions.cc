// Single-handler actions: create, update, switch on and off, query, remove,
// copy or move one handler to a new target, and the refresh of the store's
// fast copy. A handler is switched on by an empty entry file in the queue
// directory of its hook, type and stored target; every change is followed
// by a refresh and the removal of an emptied queue directory. The mass
// operations that apply these to many handlers are handler_mass.cc's.
#include "mail/handlers/handler_actions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>

#include "common/chars.h"
#include "common/file_util.h"
#include "common/mail_log.h"
#include "common/syscall.h"
#include "common/util_exec.h"
#include "mail/handlers/handler_index.h"
#include "mail/handlers/handler_store.h"

using zanth::isEmpty;
using zanth::path_format;
using zanth::shown;
using zanth::UniqueCString;
using zanth::handlers::HandlerFields;
using zanth::handlers::HandlerIndex;

namespace {

constexpr mode_t kDescriptionMode = 0755;
constexpr uid_t kQueueOwner = 0;
constexpr gid_t kQueueGroup = 0;
constexpr mode_t kQueueMode = 0755;

// Where a stored handler lives: its type, hook, queue directory and entry.
struct Location {
  UniqueCString read_hook;
  const char* hook = nullptr;
  const char* type_name = nullptr;
  char queue[zanth::kPathMax];
  char entry[zanth::kPathMax];
};

// Reads the handler's type and hook, unless known gives them as they would
// be read, and forms its queue paths; the queue is always that of the
// stored target, whatever new target an action carries.
bool locate(const char* name, const HandlerFields* known, Location* loc) {
  UniqueCString read_type;
  const char* type = known != nullptr ? known->type : nullptr;
  if (known == nullptr) {
    read_type.reset(handler_param(name, "handler-type"));
    if (!read_type) {
      mail_log(LOG_ERR, "Unable to fetch 'handler-type' parameter value for handler '%s'", name);
      return false;
    }
    type = read_type.get();
  }
  unsigned code = handler_type_code(type);
  if (code == kHandlerTypeUnknown) {
    mail_log(LOG_ERR, "Invalid handler type '%s' for handler '%s'", type, name);
    return false;
  }
  loc->type_name = handler_type_name(code);
  loc->hook = known != nullptr ? known->hook : nullptr;
  if (known == nullptr) {
    loc->read_hook.reset(handler_param(name, "hook"));
    if (!loc->read_hook) {
      mail_log(LOG_ERR, "Unable to fetch 'hook' parameter value for handler '%s'", name);
      return false;
    }
    loc->hook = loc->read_hook.get();
  }
  bool formed;
  if (code == kHandlerGlobal) {
    formed = path_format(loc->queue, sizeof loc->queue, "%s/%s/%s", kHandlersQueueRoot,
                         loc->hook, loc->type_name);
  } else {
    UniqueCString read_target;
    const char* target = known != nullptr ? known->value : nullptr;
    if (known == nullptr) {
      read_target.reset(handler_param(name, loc->type_name));
      if (!read_target) {
        mail_log(LOG_ERR, "Unable to fetch '%s' parameter value for handler '%s'",
                 loc->type_name, name);
        return false;
      }
      target = read_target.get();
    }
    formed = path_format(loc->queue, sizeof loc->queue, "%s/%s/%s/%s", kHandlersQueueRoot,
                         loc->hook, loc->type_name, target);
  }
  if (!formed) {
    mail_log(LOG_ERR,
             "handler parameters values are too long to form a valid filesystem object name");
    return false;
  }
  if (!path_format(loc->entry, sizeof loc->entry, "%s/%s", loc->queue, name)) {
    mail_log(LOG_ERR, "handler name is too long to form a valid filesystem object name");
    return false;
  }
  return true;
}

bool exists(const char* path) {
  struct stat st;
  return ::lstat(path, &st) == 0;
}

int switchOn(const Location& loc) {
  if (make_dirs_owned(loc.queue, kQueueOwner, kQueueGroup, kQueueMode) != 0) {
    mail_log(LOG_ERR, "Unable to create directory '%s'", loc.queue);
  }
  return create_truncate_file(loc.entry);
}

int switchOff(const Location& loc) {
  if (::unlink(loc.entry) == 0 || errno == ENOENT) return 0;
  // Whatever else keeps the entry from being looked up means it is off.
  const int unlink_errno = errno;
  if (!exists(loc.entry)) return 0;
  mail_log(LOG_ERR, "Unable to remove hook '%s' from directory '%s': %s", loc.hook, loc.queue,
           std::strerror(unlink_errno));
  return -1;
}

// Switches the handler off and deletes its description directory.
int removeHandler(const char* name, const Location& loc) {
  if (switchOff(loc) != 0) return -1;
  char description[zanth::kPathMax];
  if (!handler_info_path(description, sizeof description, name, nullptr)) {
    mail_log(LOG_ERR, "handler name is too long to form a valid filesystem object name");
    return -1;
  }
  return remove_tree(description, kRemoveTop);
}

int act(const char* name, const char* new_target, int action, HandlerIndex* index,
        const HandlerFields* known);

// Tells an index of a description created in its store when the creating
// function returns, whichever way it does, with its fields once they are
// known to be written.
struct AnnounceOnExit {
  HandlerIndex* index;
  const char* name;
  const HandlerFields* written = nullptr;
  ~AnnounceOnExit() {
    if (index != nullptr) index->added(name, written);
  }
};

// handler_add, telling index (when given) of the description it creates.
int addHandler(const char* tmpl, const char* type_name, const char* target,
               const char* executable, const char* context, const char* hook,
               const char* priority, int final_action, HandlerIndex* index) {
  struct stat st;
  if (executable == nullptr) errno = EFAULT;
  if (executable == nullptr || ::stat(executable, &st) != 0) {
    mail_log(LOG_ERR, "Unable to stat executable '%s': %s", shown(executable),
             std::strerror(errno));
    return -1;
  }
  unsigned code = handler_type_code(type_name);
  if (code == kHandlerTypeUnknown) {
    mail_log(LOG_ERR, "Handler type is invalid: %s", shown(type_name));
    return -1;
  }
  if (code != kHandlerGlobal && isEmpty(target)) {
    mail_log(LOG_ERR, "HandlerTypeName parameter is not defined");
    return -1;
  }
  const char* canonical = handler_type_name(code);

  char dir[zanth::kPathMax];
  if (!path_format(dir, sizeof dir, "%s/%s-%s-XXXXXX", kHandlersInfoRoot, shown(priority),
                   shown(tmpl))) {
    mail_log(LOG_ERR,
             "Name template '%s' or priority '%s' are too long to form a valid handler name",
             shown(tmpl), shown(priority));
    return -1;
  }
  if (::mkdtemp(dir) == nullptr) {
    mail_log(LOG_ERR, "Unable to create directory %s: %s", dir, std::strerror(errno));
    return -1;
  }
  const char* name = dir + std::strlen(kHandlersInfoRoot) + 1;
  // Declared before the guard, which reads them when it goes.
  UniqueCString lower;
  HandlerFields written{};
  // However far it gets, the new description is now part of the store.
  AnnounceOnExit announce{index, name};
  // Its files are made relative to the open directory, which spares a walk
  // of the store's path for each; should it not open, they go by path.
  zanth::UniqueFd dir_fd(zanth::retryEintr(
      [&] { return ::open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
  const int at = dir_fd.get() >= 0 ? dir_fd.get() : AT_FDCWD;
  if ((at != AT_FDCWD ? ::fchmod(at, kDescriptionMode) : ::chmod(dir, kDescriptionMode)) != 0) {
    mail_log(LOG_ERR, "Unable to change permissions for directory '%s': %s", dir,
             std::strerror(errno));
    return -1;
  }
  if (handler_store_param_at(at, dir, "hook", hook) != 0 ||
      handler_store_param_at(at, dir, "context", context) != 0 ||
      handler_store_param_at(at, dir, "handler-type", canonical) != 0) {
    mail_log(LOG_ERR, "Unable to store handler parameters into directory '%s'", dir);
    return -1;
  }
  // A global handler has no target: its "global" file must stay empty.
  if (code != kHandlerGlobal) {
    lower.reset(strdup(target));
    if (!lower) {
      mail_log(LOG_ERR, "Unable to convert HandlerTypeName to lowercase");
      return -1;
    }
    for (char* p = lower.get(); *p != '\0'; ++p)
      *p = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    if (handler_store_param_at(at, dir, canonical, lower.get()) != 0) {
      mail_log(LOG_ERR, "Unable to store handler parameters into directory '%s'", dir);
      return -1;
    }
  } else {
    char flag[zanth::kPathMax];
    if (!path_format(flag, sizeof flag, "%s/global", dir)) {
      mail_log(LOG_ERR, "global handler flag name is too long to be stored in the filesystem");
      return -1;
    }
    if (create_file(flag) != 0) {
      mail_log(LOG_ERR, "Unable to create file '%s'", flag);
      return -1;
    }
  }
  char link[zanth::kPathMax];
  if (!path_format(link, sizeof link, "%s/executable", dir)) {
    mail_log(LOG_ERR, "executable link name is too long to be stored in the filesystem");
    return -1;
  }
  if (::symlinkat(executable, at, at != AT_FDCWD ? "executable" : link) != 0 && errno != EEXIST) {
    mail_log(LOG_ERR, "Unable to symlink '%s' to '%s'", executable, link);
    return -1;
  }
  // What was just written need not be read back, when it reads back as is.
  written = HandlerFields{canonical, hook, lower ? lower.get() : ""};
  const bool exact =
      HandlerIndex::readsBackAs(hook) && (!lower || HandlerIndex::readsBackAs(lower.get()));
  if (exact) announce.written = &written;
  return act(name, nullptr, final_action, nullptr, exact ? &written : nullptr);
}

// What a copy of a handler for a new target is made from besides its type
// and hook.
struct CopyParts {
  UniqueCString tmpl;
  UniqueCString priority;
  UniqueCString executable;
  UniqueCString context;
};

// readCopyParts - reads what a copy of the handler for target is made of:
// 1 with the parts read; 0 when a handler of the same template, type and
// hook already serves target, so no copy is due; -1 when a part cannot be
// read (each reader logs). The copy search asks index, when given, first.
int readCopyParts(const char* name, const Location& loc, const char* target, HandlerIndex* index,
                  CopyParts* parts) {
  parts->tmpl.reset(handler_template(name));
  if (!parts->tmpl) return -1;
  std::string found;
  HandlerIndex::Find known = HandlerIndex::Find::kAskStore;
  if (index != nullptr)
    known = index->find(parts->tmpl.get(), loc.type_name, target, loc.hook, &found);
  if (known == HandlerIndex::Find::kFound) return 0;
  if (known == HandlerIndex::Find::kAskStore) {
    UniqueCString existing(handler_find(parts->tmpl.get(), loc.type_name, target, loc.hook));
    if (existing) return 0;
  }
  parts->priority.reset(handler_priority(name));
  parts->executable.reset(handler_executable(name));
  parts->context.reset(handler_param(name, "context"));
  return parts->priority && parts->executable && parts->context ? 1 : -1;
}

// Makes a switched-on copy of the handler for target, unless a handler of
// its template already serves target.
int retarget(const char* name, const Location& loc, const char* target, HandlerIndex* index) {
  CopyParts parts;
  const int needed = readCopyParts(name, loc, target, index, &parts);
  if (needed <= 0) return needed;
  return addHandler(parts.tmpl.get(), loc.type_name, target, parts.executable.get(),
                    parts.context.get(), loc.hook, parts.priority.get(), kHandlerSwitchOn, index);
}

// handler_action; a re-target searches index, when given, for its copy;
// known, when given, are the handler's fields as they would be read.
int act(const char* name, const char* new_target, int action, HandlerIndex* index,
        const HandlerFields* known) {
  name = shown(name);
  Location loc;
  if (!locate(name, known, &loc)) return -1;

  int result = 0;
  switch (action) {
    case kHandlerRemove:
      if (removeHandler(name, loc) != 0) return -1;
      break;
    case kHandlerSwitchOn:
      result = switchOn(loc);
      break;
    case kHandlerSwitchOff:
      if (switchOff(loc) != 0) return -1;
      break;
    case kHandlerQuery:
      return exists(loc.entry) ? 1 : 0;
    case kHandlerRetarget:
      result = retarget(name, loc, new_target, index);
      break;
    case kHandlerRename:
      // The copy found may be the handler itself (the targets differ only in
      // case); the original is removed all the same.
      result = retarget(name, loc, new_target, index);
      if (result == 0 && removeHandler(name, loc) != 0) return -1;
      break;
    default:
      mail_log(LOG_ERR, "UKNOWN ACTION %d requested for handler %s", action, name);
      result = -1;
      break;
  }
  handlers_refresh();
  // Drop the queue directory when this left it empty; anything else keeps it.
  zanth::ErrnoSaver keep;
  ::rmdir(loc.queue);
  return result;
}

}  // namespace

int handler_action(const char* name, const char* new_target, int action) {
  return act(name, new_target, action, nullptr, nullptr);
}

int handler_action_indexed(const char* name, const char* new_target, int action,
                           HandlerIndex* index, const HandlerFields* known) {
  return act(name, new_target, action, index, known);
}

int handler_add(const char* tmpl, const char* type_name, const char* target, const char* executable,
                const char* context, const char* hook, const char* priority, int final_action) {
  return addHandler(tmpl, type_name, target, executable, context, hook, priority, final_action,
                    nullptr);
}

int handler_update(const char* tmpl, const char* type_name, const char* target,
                   const char* new_executable, const char* new_context, const char* hook,
                   const char* new_priority) {
  UniqueCString name(handler_find(tmpl, type_name, target, hook));
  if (!name) {
    mail_log(LOG_ERR, "Handler %s for %s does not exist in queue %s", shown(tmpl), shown(target),
             shown(hook));
    return -1;
  }
  char executable[zanth::kPathMax] = "";
  if (!isEmpty(new_executable)) {
    struct stat st;
    if (::stat(new_executable, &st) != 0) {
      mail_log(LOG_ERR, "Unable to stat executable '%s': %s", new_executable, std::strerror(errno));
      return -1;
    }
    if (!path_format(executable, sizeof executable, "%s", new_executable)) {
      mail_log(LOG_ERR, "Unable to stat executable '%s': %s", new_executable,
               std::strerror(ENAMETOOLONG));
      return -1;
    }
  } else {
    char link[zanth::kPathMax];
    if (!handler_info_path(link, sizeof link, name.get(), "executable")) {
      mail_log(LOG_ERR, "handler name '%s' is too long to form a valid filesystem object name",
               name.get());
      return -1;
    }
    ssize_t n = ::readlink(link, executable, sizeof executable - 1);
    if (n < 0) {
      // Only a warning: handler_add below reports the missing program.
      mail_log(LOG_WARNING, "Unable to fetch executable link target: %s", std::strerror(errno));
      n = 0;
    }
    executable[n] = '\0';
  }
  UniqueCString old_context;
  const char* context = new_context;
  if (isEmpty(new_context)) {
    // An empty context was never written; that is not worth a message.
    char path[zanth::kPathMax];
    struct stat st;
    if (handler_info_path(path, sizeof path, name.get(), "context") &&
        ::lstat(path, &st) == 0) {
      old_context.reset(handler_param(name.get(), "context"));
      context = old_context.get();
    }
  }
  UniqueCString old_priority;
  const char* priority = new_priority;
  if (isEmpty(new_priority)) {
    old_priority.reset(handler_priority(name.get()));
    if (!old_priority) return -1;
    priority = old_priority.get();
  }
  int final_action = handler_action(name.get(), nullptr, kHandlerQuery) == 1 ? kHandlerSwitchOn
                                                                             : kHandlerSwitchOff;
  if (handler_action(name.get(), nullptr, kHandlerRemove) != 0) return -1;
  // Re-created under tmpl, which may differ from the template part of the
  // old name: tmpl found it as a substring.
  return handler_add(tmpl, type_name, target, executable, context, hook, priority,
                     final_action);
}

int handler_rename_ready(const char* name, const char* new_target) {
  Location loc;
  CopyParts parts;
  if (!locate(name, nullptr, &loc)) return -1;
  return readCopyParts(name, loc, new_target, nullptr, &parts) < 0 ? -1 : 0;
}

namespace {

bool isRunnable(const struct stat& st) { return S_ISREG(st.st_mode) && (st.st_mode & S_IXUSR) != 0; }

}  // namespace

bool handlers_refresh_runnable() {
  struct stat st;
  return ::stat(kHandlersRefreshProgram, &st) == 0 && isRunnable(st);
}

int handlers_refresh() {
  struct stat st;
  int rc = ::stat(kHandlersRefreshProgram, &st);
  if (rc != 0 || !isRunnable(st)) return rc;
  char program[zanth::kPathMax];
  char refresh[] = "refresh";
  if (!path_format(program, sizeof program, "%s", kHandlersRefreshProgram)) return -1;
  char* argv[] = {program, refresh, nullptr};
  int result = exec_capture_report(kHandlersRefreshProgram, argv, kReportFailure);
  if (result != 0) mail_log(LOG_ERR, "Cannot sync tmps storage to fs");
  return result;
}
