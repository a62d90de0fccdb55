// Handler actions: switch a stored handler on or off, query, remove, copy it
// to a new target or move it there (the domain rename), the mass operations
// over the whole store by target and by template, and the refresh of the
// fast copy of the store. Plain functions: 0 / -1, failures logged once
// through mail_log at priority 3; mass operations report once at the end.
#ifndef MXKEEP_MAIL_HANDLERS_HANDLER_ACTIONS_H
#define MXKEEP_MAIL_HANDLERS_HANDLER_ACTIONS_H

#include "common/fixed_paths.h"

// Action numbers accepted by handler_action and the mass operations.
constexpr int kHandlerRemove = 1;     // switch off, delete the description
constexpr int kHandlerSwitchOn = 2;   // create the queue entry
constexpr int kHandlerSwitchOff = 3;  // delete the queue entry
constexpr int kHandlerQuery = 4;      // 1 when switched on, 0 when not
constexpr int kHandlerRetarget = 5;   // switched-on copy for a new target
constexpr int kHandlerRename = 6;     // re-target, then remove the original

// Program that syncs the store's fast copy; run with "refresh" when present.
constexpr const char* kHandlersRefreshProgram = zanth::paths::kHandlersRefreshProgram;

// handler_action - apply one action to the named handler; new_target is the
// target value for actions 5 and 6. 0 / -1 (action 4: 1 or 0).
int handler_action(const char* name, const char* new_target, int action);

// handlers_act_on_target - apply action to every handler aimed at target and,
// when target is a domain, at every address in it; addresses move to the same
// local part at new_target. Goes on past failures. 0, or -1 when any failed.
int handlers_act_on_target(const char* target, const char* new_target, int action);

// handlers_act_on_template - apply action to every handler whose template
// part equals tmpl, or to all handlers when tmpl is "all". 0 / -1.
int handlers_act_on_template(const char* tmpl, int action);

// handlers_refresh - run the refresh program when it is an executable
// regular file; otherwise the result of stat on it and nothing is run.
int handlers_refresh();

#endif  // MXKEEP_MAIL_HANDLERS_HANDLER_ACTIONS_H
