// Handler actions and mass operations over the handler store, and the
// refresh of its fast copy. A handler is switched on by an empty entry file
// in the queue directory of its hook, type and stored target; every change
// is followed by a refresh and the removal of an emptied queue directory.
#include "mail/handlers/handler_actions.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/file_util.h"
#include "common/mail_log.h"
#include "common/syscall.h"
#include "common/util_exec.h"
#include "mail/handlers/handler_store.h"

using zanth::path_format;
using zanth::handlers::OwnedString;

namespace {

constexpr int kLogErr = 3;
constexpr uid_t kQueueOwner = 0;
constexpr gid_t kQueueGroup = 0;
constexpr mode_t kQueueMode = 0755;

// Where a stored handler lives: its type, hook, queue directory and entry.
struct Location {
  OwnedString type;
  OwnedString hook;
  const char* type_name = nullptr;
  char queue[zanth::kPathMax];
  char entry[zanth::kPathMax];
};

// Reads the handler's type and hook and forms its queue paths; the queue is
// always that of the stored target, whatever new target an action carries.
bool locate(const char* name, Location* loc) {
  loc->type.reset(handler_param(name, "handler-type"));
  if (!loc->type) {
    mail_log(kLogErr, "Unable to fetch 'handler-type' parameter value for handler '%s'", name);
    return false;
  }
  unsigned code = handler_type_code(loc->type.get());
  if (code == kHandlerTypeUnknown) {
    mail_log(kLogErr, "Invalid handler type '%s' for handler '%s'", loc->type.get(), name);
    return false;
  }
  loc->type_name = handler_type_name(code);
  loc->hook.reset(handler_param(name, "hook"));
  if (!loc->hook) {
    mail_log(kLogErr, "Unable to fetch 'hook' parameter value for handler '%s'", name);
    return false;
  }
  bool formed;
  if (code == kHandlerGlobal) {
    formed = path_format(loc->queue, sizeof loc->queue, "%s/%s/%s", kHandlersQueueRoot,
                         loc->hook.get(), loc->type_name);
  } else {
    OwnedString target(handler_param(name, loc->type_name));
    if (!target) {
      mail_log(kLogErr, "Unable to fetch '%s' parameter value for handler '%s'", loc->type_name,
               name);
      return false;
    }
    formed = path_format(loc->queue, sizeof loc->queue, "%s/%s/%s/%s", kHandlersQueueRoot,
                         loc->hook.get(), loc->type_name, target.get());
  }
  if (!formed) {
    mail_log(kLogErr,
             "handler parameters values are too long to form a valid filesystem object name");
    return false;
  }
  if (!path_format(loc->entry, sizeof loc->entry, "%s/%s", loc->queue, name)) {
    mail_log(kLogErr, "handler name is too long to form a valid filesystem object name");
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
    mail_log(kLogErr, "Unable to create directory '%s'", loc.queue);
  }
  return create_truncate_file(loc.entry);
}

int switchOff(const Location& loc) {
  if (exists(loc.entry) && ::unlink(loc.entry) != 0) {
    mail_log(kLogErr, "Unable to remove hook '%s' from directory '%s': %s", loc.hook.get(),
             loc.queue, std::strerror(errno));
    return -1;
  }
  return 0;
}

// Switches the handler off and deletes its description directory.
int removeHandler(const char* name, const Location& loc) {
  if (switchOff(loc) != 0) return -1;
  char description[zanth::kPathMax];
  if (!path_format(description, sizeof description, "%s/%s", kHandlersInfoRoot, name)) {
    mail_log(kLogErr, "handler name is too long to form a valid filesystem object name");
    return -1;
  }
  remove_tree(description, 1);
  return 0;
}

// What a copy of a handler for a new target is made from. When a handler
// of the same template, type and hook already serves the target, only the
// template and that handler's name are read.
struct CopySource {
  OwnedString tmpl;
  OwnedString existing;
  OwnedString priority;
  OwnedString executable;
  OwnedString context;
};

// readCopySource - false when a part that is needed cannot be read (each
// reader logs its own failure).
bool readCopySource(const char* name, const Location& loc, const char* target, CopySource* src) {
  src->tmpl.reset(handler_template(name));
  if (!src->tmpl) return false;
  src->existing.reset(handler_find(src->tmpl.get(), loc.type_name, target, loc.hook.get()));
  if (src->existing) return true;
  src->priority.reset(handler_priority(name));
  src->executable.reset(handler_executable(name));
  src->context.reset(handler_param(name, "context"));
  return src->priority && src->executable && src->context;
}

// Makes a switched-on copy of the handler for target. When a handler of the
// same template, type and hook already serves target, nothing is created;
// *is_self then tells whether that handler is this very one.
int retarget(const char* name, const Location& loc, const char* target, bool* is_self) {
  *is_self = false;
  CopySource src;
  if (!readCopySource(name, loc, target, &src)) return -1;
  if (src.existing) {
    *is_self = std::strcmp(src.existing.get(), name) == 0;
    return 0;
  }
  return handler_add(src.tmpl.get(), loc.type_name, target, src.executable.get(),
                     src.context.get(), loc.hook.get(), src.priority.get(), kHandlerSwitchOn);
}

// Acts on one entry of a mass operation; logs and counts a failure.
void actCounted(const char* name, const char* target, int action, int* errors) {
  if (handler_action(name, target, action) != 0) {
    mail_log(kLogErr, "Unable to exec action for handler: %s\n", name);
    ++*errors;
  }
}

int massResult(int errors) {
  if (errors == 0) return 0;
  mail_log(kLogErr, "Some errors was occured in mass hook operation. errors: %i", errors);
  return -1;
}

bool isDotEntry(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// forEachHandler - calls visit(name, &errors) for every stored handler, in
// directory order, and turns the error count into the mass result.
template <class Visit>
int forEachHandler(Visit visit) {
  zanth::UniqueDir dir(::opendir(kHandlersInfoRoot));
  if (dir.get() == nullptr) {
    mail_log(kLogErr, "Unable to open directory %s: %s", kHandlersInfoRoot, std::strerror(errno));
    return -1;
  }
  int errors = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    if (!isDotEntry(entry->d_name)) visit(entry->d_name, &errors);
  }
  dir.reset();
  return massResult(errors);
}

}  // namespace

int handler_action(const char* name, const char* new_target, int action) {
  if (name == nullptr) name = "(null)";
  Location loc;
  if (!locate(name, &loc)) return -1;

  int result = 0;
  bool is_self = false;
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
      result = retarget(name, loc, new_target, &is_self);
      break;
    case kHandlerRename:
      result = retarget(name, loc, new_target, &is_self);
      // Renaming to the target the handler already has must not delete it.
      if (result == 0 && !is_self && removeHandler(name, loc) != 0) return -1;
      break;
    default:
      mail_log(kLogErr, "UKNOWN ACTION %d requested for handler %s", action, name);
      result = -1;
      break;
  }
  handlers_refresh();
  // Drop the queue directory when this left it empty; anything else keeps it.
  int saved_errno = errno;
  ::rmdir(loc.queue);
  errno = saved_errno;
  return result;
}

int handler_target_match(const char* name, const char* target, const char* new_target,
                         char* buf, size_t size, const char** moved_to) {
  OwnedString type(handler_param(name, "handler-type"));
  if (!type) {
    mail_log(kLogErr, "Unable to get type of handler: %s\n", name);
    return -1;
  }
  // For a global handler this reads its empty "global" flag: no match.
  OwnedString value(handler_param(name, type.get()));
  if (!value) {
    mail_log(kLogErr, "Unable to get mailname from handler: %s\n", name);
    return -1;
  }
  *moved_to = new_target;
  if (std::strcmp(value.get(), target) == 0) return 1;
  if (std::strchr(target, '@') != nullptr) return 0;
  const char* at = std::strchr(value.get(), '@');
  if (at == nullptr || std::strcmp(at + 1, target) != 0) return 0;
  if (new_target == nullptr) return 1;
  if (!path_format(buf, size, "%.*s@%s", static_cast<int>(at - value.get()), value.get(),
                   new_target)) {
    mail_log(kLogErr, "Unable to exec action for handler: %s\n", name);
    return -1;
  }
  *moved_to = buf;
  return 1;
}

int handler_rename_ready(const char* name, const char* new_target) {
  Location loc;
  CopySource src;
  return locate(name, &loc) && readCopySource(name, loc, new_target, &src) ? 0 : -1;
}

int handlers_list(std::vector<std::string>* names) {
  return forEachHandler([names](const char* name, int*) { names->push_back(name); });
}

int handlers_act_on_target(const char* target, const char* new_target, int action) {
  if (target == nullptr) {
    mail_log(kLogErr, "Some parameter was not defined");
    return -1;
  }
  return forEachHandler([&](const char* name, int* errors) {
    char address[zanth::kPathMax];
    const char* moved_to = nullptr;
    const int match = handler_target_match(name, target, new_target, address, sizeof address,
                                           &moved_to);
    if (match < 0) ++*errors;
    if (match > 0) actCounted(name, moved_to, action, errors);
  });
}

int handlers_act_on_template(const char* tmpl, int action) {
  if (tmpl == nullptr) {
    mail_log(kLogErr, "Some parameter was not defined");
    return -1;
  }
  const bool all = std::strcmp(tmpl, "all") == 0;
  return forEachHandler([&](const char* name, int* errors) {
    if (!all) {
      OwnedString own(handler_template(name));
      if (!own) {
        ++*errors;
        return;
      }
      if (std::strcmp(own.get(), tmpl) != 0) return;
    }
    actCounted(name, nullptr, action, errors);
  });
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
  int result = exec_capture_report(kHandlersRefreshProgram, argv, 0);
  if (result != 0) mail_log(kLogErr, "Cannot sync tmps storage to fs");
  return result;
}
