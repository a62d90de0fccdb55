// Handler store: the on-disk registry of mail filter handlers. One
// description directory per handler under the info root (one small file per
// parameter and an "executable" link) and queue directories whose empty entry
// files switch a handler on for its target. This layer names, reads, finds
// and orders handlers; creating and changing them is handler_actions.h's.
// Plain functions: 0 / -1 or pointer / null, one message through mail_log at
// priority 3 per failure.
#ifndef MXKEEP_MAIL_HANDLERS_HANDLER_STORE_H
#define MXKEEP_MAIL_HANDLERS_HANDLER_STORE_H

#include <cstddef>
#include <cstdlib>

#include "common/fixed_paths.h"

// Roots of the store: queue directories and handler descriptions.
constexpr const char* kHandlersQueueRoot = zanth::paths::kHandlersQueueRoot;
constexpr const char* kHandlersInfoRoot = zanth::paths::kHandlersInfoRoot;

// Type codes, indices into the fixed table of type names.
constexpr unsigned kHandlerSender = 0;
constexpr unsigned kHandlerRecipient = 1;
constexpr unsigned kHandlerSenderDomain = 2;
constexpr unsigned kHandlerRecipientDomain = 3;
constexpr unsigned kHandlerGlobal = 4;
constexpr unsigned kHandlerTypeUnknown = 65535;

// Size of the buffer a parameter value is read into: values of this many
// characters or more cannot be read back.
constexpr size_t kHandlerParamMax = 311;

// handler_type_code - code 0 to 4 of a type name (any case), or 65535 for an
// unknown, empty or null name.
unsigned handler_type_code(const char* type_name);

// handler_type_name - canonical lower-case name of a type code, or null.
const char* handler_type_name(unsigned code);

// handler_priority, handler_template - malloc'ed copy of the priority or
// template part of a handler name "priority-template-random"; null (logged)
// when the name does not have that shape. The caller frees.
char* handler_priority(const char* name);
char* handler_template(const char* name);

// handler_param - malloc'ed first line (trimmed) of the handler's parameter
// file, or null (logged). The caller frees.
char* handler_param(const char* name, const char* param);

// handler_executable - malloc'ed resolved path of the handler's program, or
// null (logged). The caller frees.
char* handler_executable(const char* name);

// handler_store_param - write value as the one line of dir/file (mode 0644);
// a null or empty value writes nothing. 0 / -1.
int handler_store_param(const char* dir, const char* file, const char* value);

// handler_info_path - "<info root>/<name>/<file>", or the handler's own
// directory "<info root>/<name>" when file is null, into path (size bytes).
// false when it does not fit; callers report their own message.
bool handler_info_path(char* path, size_t size, const char* name, const char* file);

// handler_store_param_at - handler_store_param with file opened relative to
// dir_fd, the directory dir open (AT_FDCWD: dir is opened by path).
int handler_store_param_at(int dir_fd, const char* dir, const char* file, const char* value);

// handler_find - malloc'ed name of the first handler whose name contains
// tmpl and whose hook, type and target (case ignored) match; null when there
// is none or on failure. The caller frees.
char* handler_find(const char* tmpl, const char* type_name, const char* target, const char* hook);

// handler_sort - order handler names by numeric priority, then template,
// then random part. Names that cannot be split compare equal (logged).
void handler_sort(char** names, size_t count);

// handler_compare - the comparison handler_sort orders by: negative, 0 or
// positive as x sorts before, with or after y.
int handler_compare(const char* x, const char* y);

#endif  // MXKEEP_MAIL_HANDLERS_HANDLER_STORE_H
