// Mass operations over the handler store: one action applied to every
// handler aimed at a target (the domain rename's last step) or of a
// template, over one HandlerIndex read of the store. A failing handler is
// logged and counted and the loop goes on; the count is reported once at
// the end. The single-handler actions are handler_actions.cc's.
#include "mail/handlers/handler_mass.h"

#include <limits.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>

#include "common/mail_log.h"
#include "common/syscall.h"
#include "mail/handlers/handler_actions.h"
#include "mail/handlers/handler_index.h"
#include "mail/handlers/handler_store.h"

using zanth::path_format;
using zanth::UniqueCString;
using zanth::handlers::HandlerFields;
using zanth::handlers::HandlerIndex;

namespace {

// Acts on entry i of a mass operation; logs and counts a failure.
void actCounted(HandlerIndex& index, size_t i, const char* target, int action, int* errors) {
  // The index's copies move when the action adds a handler.
  char name[NAME_MAX + 1];
  std::strncpy(name, index.name(i), sizeof name - 1);
  name[sizeof name - 1] = '\0';
  HandlerFields fields;
  char hook[kHandlerParamMax], value[kHandlerParamMax];
  const bool known = index.fields(i, &fields);
  if (known) {
    std::strcpy(hook, fields.hook);  // both shorter than kHandlerParamMax
    std::strcpy(value, fields.value);
    fields.hook = hook;
    fields.value = value;
  }
  if (handler_action_indexed(name, target, action, &index, known ? &fields : nullptr) != 0) {
    mail_log(LOG_ERR, "Unable to exec action for handler: %s\n", name);
    ++*errors;
  }
  index.forgetIfGone(i);
}

int massResult(int errors) {
  if (errors == 0) return 0;
  mail_log(LOG_ERR, "Some errors was occured in mass hook operation. errors: %i", errors);
  return -1;
}

// matchTarget - whether a handler of the named target value is one that a
// mass operation on target acts on: 1 with *moved_to set to the target it
// gets (new_target, or for an address in the domain target the same local
// part at new_target, formed in buf), 0 when it is not, -1 (logged) when
// the new address does not fit.
int matchTarget(const char* name, const char* value, const char* target, const char* new_target,
                char* buf, size_t size, const char** moved_to) {
  *moved_to = new_target;
  if (std::strcmp(value, target) == 0) return 1;
  if (std::strchr(target, '@') != nullptr) return 0;
  const char* at = std::strchr(value, '@');
  if (at == nullptr || std::strcmp(at + 1, target) != 0) return 0;
  if (new_target == nullptr) return 1;
  if (!path_format(buf, size, "%.*s@%s", static_cast<int>(at - value), value, new_target)) {
    mail_log(LOG_ERR, "Unable to exec action for handler: %s\n", name);
    return -1;
  }
  *moved_to = buf;
  return 1;
}

// readTypeAndValue - reads the handler's type and target value as the
// store reads them, so that what is wrong is reported. false when either
// cannot be read. For a global handler the value is its empty flag file.
bool readTypeAndValue(const char* name, UniqueCString* type, UniqueCString* value) {
  type->reset(handler_param(name, "handler-type"));
  if (!*type) {
    mail_log(LOG_ERR, "Unable to get type of handler: %s\n", name);
    return false;
  }
  value->reset(handler_param(name, type->get()));
  if (!*value) {
    mail_log(LOG_ERR, "Unable to get mailname from handler: %s\n", name);
    return false;
  }
  return true;
}

// forEachHandler - calls visit(index, i, &errors) for every handler stored
// when it starts, in directory order, and turns the error count into the
// mass result. Handlers the visits create are not visited: a copy carries
// the new target and would be passed over anyway.
template <class Visit>
int forEachHandler(Visit visit) {
  HandlerIndex index;
  if (!index.load()) {
    mail_log(LOG_ERR, "Unable to open directory %s: %s", kHandlersInfoRoot, std::strerror(errno));
    return -1;
  }
  int errors = 0;
  for (size_t i = 0, stored = index.size(); i < stored; ++i) {
    if (!index.gone(i)) visit(index, i, &errors);
  }
  return massResult(errors);
}

}  // namespace

int handlers_act_on_target(const char* target, const char* new_target, int action) {
  if (target == nullptr) {
    mail_log(LOG_ERR, "Some parameter was not defined");
    return -1;
  }
  return forEachHandler([&](HandlerIndex& index, size_t i, int* errors) {
    const char* type = nullptr;
    const char* value = nullptr;
    const bool known = index.typeAndValue(i, &type, &value);
    const char* name = index.name(i);  // after the index has read its fields
    UniqueCString read_type, read_value;
    if (!known) {
      if (!readTypeAndValue(name, &read_type, &read_value)) {
        ++*errors;
        return;
      }
      value = read_value.get();
    }
    char address[zanth::kPathMax];
    const char* moved_to = nullptr;
    const int match =
        matchTarget(name, value, target, new_target, address, sizeof address, &moved_to);
    if (match < 0) ++*errors;
    if (match > 0) actCounted(index, i, moved_to, action, errors);
  });
}

int handler_target_match(const char* name, const char* target, const char* new_target, char* buf,
                         size_t size, const char** moved_to) {
  UniqueCString type, value;
  if (!readTypeAndValue(name, &type, &value)) return -1;
  return matchTarget(name, value.get(), target, new_target, buf, size, moved_to);
}

int handlers_list(std::vector<std::string>* names) {
  return forEachHandler(
      [names](HandlerIndex& index, size_t i, int*) { names->push_back(index.name(i)); });
}

int handlers_act_on_template(const char* tmpl, int action) {
  if (tmpl == nullptr) {
    mail_log(LOG_ERR, "Some parameter was not defined");
    return -1;
  }
  const bool all = std::strcmp(tmpl, "all") == 0;
  return forEachHandler([&](HandlerIndex& index, size_t i, int* errors) {
    if (!all) {
      UniqueCString own(handler_template(index.name(i)));
      if (!own) {
        ++*errors;
        return;
      }
      if (std::strcmp(own.get(), tmpl) != 0) return;
    }
    actCounted(index, i, nullptr, action, errors);
  });
}
