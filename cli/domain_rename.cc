// Command line and rename sequence of mxkeep_domain_rename.
#include "cli/domain_rename.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <typeinfo>

#include "cli/check_places.h"
#include "cli/rename_trail.h"
#include "common/domain_name.h"
#include "common/errors.h"
#include "common/file_util.h"
#include "common/idn.h"
#include "common/syscall.h"
#include "mail/auth/auth_db.h"
#include "mail/auth/auth_domains.h"
#include "mail/handlers/handler_actions.h"
#include "mail/handlers/handler_mass.h"
#include "mail/plugins/plugin_runner.h"
#include "mail/postfix/delivery_hold.h"
#include "mail/postfix/errors.h"
#include "mail/postfix/virtual_rename.h"
#include "process/termination.h"

namespace zanth {
namespace cli {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUnspecified = 2;

[[noreturn]] void usage(int status, const std::string& message) {
  if (!message.empty()) errorStream << message << std::endl;
  std::cout << "Rename a Zanth-controlled mail domain" << std::endl
            << "Usage: mxkeep_domain_rename <old_domain_name> <new_domain_name>" << std::endl;
  if (status != kExitOk) rename_trail::refused(message);
  std::exit(status);
}

std::string demangledTypeName(const std::exception& e) {
  const char* mangled = typeid(e).name();
  int status = -1;
  const UniqueCString name(abi::__cxa_demangle(mangled, nullptr, nullptr, &status));
  return status == 0 && name ? name.get() : mangled;
}

void checkArguments(int& argc, char**& argv) {
  if (argc < 3) usage(kExitFailure, "Not enough arguments");
  if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) usage(kExitOk, "");
  if (std::strcmp(argv[1], "--") == 0) {
    ++argv;
    --argc;
  }
  if (argc != 3) usage(kExitFailure, "Invalid arguments");
  if (argv[1][0] == '\0') usage(kExitFailure, "Empty old domain name");
  if (argv[2][0] == '\0') usage(kExitFailure, "Empty new domain name");
  for (int i = 1; i <= 2; ++i)
    if (argv[i][0] == '-') usage(kExitFailure, std::string("Invalid argument '") + argv[i] + "'");
}

}  // namespace

std::string fatalText(const std::exception& e) {
  return "Fatal error: " + demangledTypeName(e) + "(" + e.what() + ")";
}

void reportFatal(const std::exception& e) {
  errorStream << fatalText(e) << std::endl;
  if (const Traceback* tb = dynamic_cast<const Traceback*>(&e)) errorStream << *tb;
}

namespace {

// step - runs one step and logs how it ended: body returns the step's
// further log fields, or throws its failure.
template <class Body>
void step(const char* name, Body body) {
  std::string details;
  try {
    details = body();
  } catch (const std::exception& e) {
    rename_trail::stepFailed(name, e.what());
    throw;
  }
  rename_trail::stepEnded(name, details);
}

// renameSteps - every step of the rename in its order, the Postfix step
// guarded so that a later failure runs it backwards on the way out.
void renameSteps(const std::string& oldName, const std::string& newName,
                 mail::postfix::DirectoryHolds holds) {
  // A failure here has been undone by the step itself. Each step ends by
  // asking for a termination signal held meanwhile: the rename then fails
  // there, as if that step had failed.
  step("postfix", [&] {
    return rename_trail::postfixDetails(mail::postfix::renameDomain(oldName, newName, holds));
  });
  // From here on a failure runs the Postfix step backwards on the way out
  // (see PostfixRenameGuard for what that leaves behind).
  mail::postfix::PostfixRenameGuard postfixGuard(oldName, newName, holds);

  step(kPlaceAuth, [&] {
    process::checkTermination();
    // Only the location matters here; the style is known.
    mail_auth_select_style(kMailStylePostfix);
    const int authResult = mail_auth_rename_domain(oldName.c_str(), newName.c_str());
    process::checkTermination();
    if (authResult != 0)
      throw mail::postfix::PostfixAuthenticationDBError(
          "unable to update domain name in mail authentication database");
    return std::string();
  });

  step(kPlacePlugins, [&] {
    const int pluginResult = run_rename_plugins(oldName.c_str(), newName.c_str());
    process::checkTermination();
    if (pluginResult != 0) throw mail::postfix::PostfixError("unable to rename some of services");
    return std::string();
  });

  step(kPlaceHandlers, [&] {
    const int handlerResult =
        handlers_act_on_target(oldName.c_str(), newName.c_str(), kHandlerRename);
    process::checkTermination();
    if (handlerResult != 0) throw mail::postfix::PostfixError("Unable to rename domain handlers");
    return std::string();
  });
}

}  // namespace

void renameDomain(std::string& oldName, std::string& newName) {
  const std::string givenOld = oldName, givenNew = newName;
  oldName = domain_name::normalized(oldName, "old");
  newName = domain_name::normalized(newName, "new");
  // The same domain under another spelling: there is nothing to rename.
  if (oldName == newName) return;
  process::checkTermination();
  const std::vector<Clash> found = clashes(oldName, newName);
  if (!found.empty()) throw RenameRefusal(clashRefusal(oldName, newName, found));
  process::checkTermination();
  rename_trail::started(givenOld, givenNew, oldName, newName);

  // While Postfix delivers, mail waits in its queue instead of bouncing or
  // landing in a directory of either name until every place has moved
  // (or moved back); released on every way out.
  mail::postfix::DeliveryHold hold(oldName, newName);
  process::checkTermination();
  renameSteps(oldName, newName, hold.directoryHolds());
  hold.release();
}

int domainRenameMain(int argc, char** argv) {
  // Before anything is opened: no file may become standard input, output
  // or error. Without them there is nowhere to report to either.
  if (open_standard_descriptors() != 0) return kExitFailure;
  std::string givenOld, givenNew;
  try {
    checkArguments(argc, argv);
    process::holdTerminationSignals();
    givenOld = argv[1];
    givenNew = argv[2];
    std::string oldName = givenOld;
    std::string newName = givenNew;
    renameDomain(oldName, newName);
    rename_trail::ended(kExitOk);
    return kExitOk;
  } catch (const std::exception& e) {
    reportFatal(e);
    // Before the start nothing was changed: the refusal is the one line.
    if (rename_trail::isStarted())
      rename_trail::ended(kExitFailure);
    else
      rename_trail::refused(fatalText(e), givenOld, givenNew);
    return kExitFailure;
  } catch (...) {
    errorStream << "UNSPECIFIED ERROR OCCURED" << std::endl;
    rename_trail::ended(kExitUnspecified);
    return kExitUnspecified;
  }
}

}  // namespace cli
}  // namespace zanth
