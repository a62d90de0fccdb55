// Seeds the demo's sample authentication database and mail handlers through
// the library itself, so that the demo's data is always laid out as the
// library lays it out: the database made as the tool's set-up makes it, then
// users (and with them their domains) and switched-on handlers added.
// Run inside the sandbox by scripts/demo-inside.sh; on the first failure it
// names the step on stderr (the library has logged why) and exits 1.
#include <cstdio>

#include "mail/auth/auth_db.h"
#include "mail/auth/auth_users.h"
#include "mail/handlers/handler_actions.h"

namespace {

struct User {
  const char *local_part, *domain, *password;
};

struct Handler {
  const char *tmpl, *priority, *type, *target, *context, *hook;
};

// Users in the order their domains are to get ids 1, 2, 3.
const User kUsers[] = {{"info", "example.org", "secret1"},
                       {"sales", "example.org", "secret2"},
                       {"help", "mail.example.org", "secret3"},
                       {"boss", "other.example", "secret4"}};

const Handler kHandlers[] = {{"spam", "10", "recipient", "info@example.org",
                              "spam filter for info@example.org", "before-queue"},
                             {"virus", "20", "recipient-domain", "example.org",
                              "virus filter for example.org", "before-queue"},
                             {"spam", "10", "recipient", "boss@other.example",
                              "spam filter for boss@other.example", "before-queue"},
                             {"archive", "5", "global", nullptr, "archive of all mail",
                              "after-queue"}};

int failed(const char* step, const char* what) {
  std::fprintf(stderr, "demo_seed: cannot %s %s\n", step, what);
  return 1;
}

}  // namespace

int main() {
  if (mail_auth_init(kMailStylePostfix) != 0)
    return failed("create", "the authentication database");
  for (const User& user : kUsers)
    if (mail_auth_add_user(user.local_part, user.domain, user.password, 0) != 0)
      return failed("add user", user.local_part);
  for (const Handler& h : kHandlers)
    if (handler_add(h.tmpl, h.type, h.target, "/bin/true", h.context, h.hook, h.priority,
                    kHandlerSwitchOn) != 0)
      return failed("add handler", h.tmpl);
  return 0;
}
