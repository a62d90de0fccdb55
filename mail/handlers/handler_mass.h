// Handler mass operations: one action applied to every handler of the store
// aimed at a target (and, for a domain, at every address in it) or of a
// template; the domain rename runs the first with the move action. Plain
// functions: a failing handler is logged once and counted, the loop goes
// on, and the count is reported once at the end (0 / -1).
#ifndef MXKEEP_MAIL_HANDLERS_HANDLER_MASS_H
#define MXKEEP_MAIL_HANDLERS_HANDLER_MASS_H

#include <cstddef>
#include <string>
#include <vector>

// handlers_act_on_target - apply action (a number of handler_actions.h) to
// every handler aimed at target and, when target is a domain, at every
// address in it; addresses move to the same local part at new_target. Goes
// on past failures. 0, or -1 when any failed.
int handlers_act_on_target(const char* target, const char* new_target, int action);

// handler_target_match - whether the handler `name` is one that
// handlers_act_on_target(target, new_target, ...) acts on: 1 when it is,
// with *moved_to set to the target it gets (new_target itself, or for an
// address in the domain target the same local part formed in buf; null
// when new_target is); 0 when it is not; -1 (logged) when its type or
// target cannot be read or the new address does not fit.
int handler_target_match(const char* name, const char* target, const char* new_target, char* buf,
                         size_t size, const char** moved_to);

// handlers_list - append the name of every stored handler to names, in
// directory order. 0 / -1 (logged).
int handlers_list(std::vector<std::string>* names);

// handlers_act_on_template - apply action to every handler whose template
// part equals tmpl, or to all handlers when tmpl is "all". 0 / -1.
int handlers_act_on_template(const char* tmpl, int action);

#endif  // MXKEEP_MAIL_HANDLERS_HANDLER_MASS_H
