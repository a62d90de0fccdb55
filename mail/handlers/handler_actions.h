// Handler actions: create and update handlers, switch a stored handler on or
// off, query, remove, copy it to a new target or move it there, and the
// refresh of the fast copy of the store. Built on the store of
// handler_store.h. Plain functions: 0 / -1, failures logged once through
// mail_log at priority 3. The operations over many handlers at once (the
// domain rename's step) are handler_mass.h's.
#ifndef MXKEEP_MAIL_HANDLERS_HANDLER_ACTIONS_H
#define MXKEEP_MAIL_HANDLERS_HANDLER_ACTIONS_H

#include "common/fixed_paths.h"
#include "mail/handlers/handler_store.h"

namespace zanth {
namespace handlers {
class HandlerIndex;
struct HandlerFields;
}  // namespace handlers
}  // namespace zanth

// Action numbers accepted by handler_action and the mass operations.
constexpr int kHandlerRemove = 1;     // switch off, delete the description
constexpr int kHandlerSwitchOn = 2;   // create the queue entry
constexpr int kHandlerSwitchOff = 3;  // delete the queue entry
constexpr int kHandlerQuery = 4;      // 1 when switched on, 0 when not
constexpr int kHandlerRetarget = 5;   // switched-on copy for a new target
constexpr int kHandlerRename = 6;     // re-target, then remove the original

// Program that syncs the store's fast copy; run with "refresh" when present.
constexpr const char* kHandlersRefreshProgram = zanth::paths::kHandlersRefreshProgram;

// handler_add - create a handler description and apply final_action to it
// (2 switches it on, 3 leaves it off). 0 / -1; a failure part-way leaves the
// partly written description in place.
int handler_add(const char* tmpl, const char* type_name, const char* target, const char* executable,
                const char* context, const char* hook, const char* priority, int final_action);

// handler_update - replace a handler's program, context or priority (null or
// empty keeps the old one) by re-creating it; the switch state is kept and
// the handler gets a new name. 0 / -1.
int handler_update(const char* tmpl, const char* type_name, const char* target,
                   const char* new_executable, const char* new_context, const char* hook,
                   const char* new_priority);

// handler_action - apply one action to the named handler; new_target is the
// target value for actions 5 and 6. 0 / -1 (action 4: 1 or 0).
int handler_action(const char* name, const char* new_target, int action);

// handler_action_indexed - handler_action inside a mass operation: the copy
// search of a re-target asks index first and tells it of the copy made;
// known, when given, holds the handler's type, hook and target as they
// would be read back, sparing the reads.
int handler_action_indexed(const char* name, const char* new_target, int action,
                           zanth::handlers::HandlerIndex* index,
                           const zanth::handlers::HandlerFields* known);

// handler_rename_ready - whether a move (action 6) of the handler to
// new_target could read everything it copies: type, hook, stored target,
// template and, unless a handler of that template already serves
// new_target, priority, program and context. 0, or -1 with what is
// missing logged. Changes nothing.
int handler_rename_ready(const char* name, const char* new_target);

// handlers_refresh_runnable - whether handlers_refresh would run the
// refresh program (an executable regular file).
bool handlers_refresh_runnable();

// handlers_refresh - run the refresh program when it is an executable
// regular file; otherwise the result of stat on it and nothing is run.
int handlers_refresh();

#endif  // MXKEEP_MAIL_HANDLERS_HANDLER_ACTIONS_H
