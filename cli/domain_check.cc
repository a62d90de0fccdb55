// The mxkeep_domain_check command: arguments, name conversion, the form of
// the check the arguments ask for and the report in text or JSON. The
// check's own failures end in a "Fatal error: " line.
#include "cli/domain_check.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <vector>

#include "cli/check_report.h"
#include "cli/domain_rename.h"
#include "cli/name_locator.h"
#include "cli/rename_prediction.h"
#include "common/domain_name.h"
#include "common/errors.h"
#include "common/file_util.h"
#include "common/syslog_trail.h"
#include "process/termination.h"

namespace zanth {
namespace cli {
namespace {

constexpr long kCheckWaitLimitMs = 2000;
constexpr char kCheckIdent[] = "mxkeep_domain_check";

[[noreturn]] void usage(int status, const std::string& message) {
  if (!message.empty()) errorStream << message << std::endl;
  std::cout << "Check a Zanth-controlled mail domain before or after a rename" << std::endl
            << "Usage: mxkeep_domain_check [--json] <old_domain_name> <new_domain_name>"
            << std::endl
            << "       mxkeep_domain_check [--json] <domain_name>" << std::endl;
  std::exit(status);
}

// checkArguments - leaves the names in names; true for --json.
bool checkArguments(int argc, char** argv, std::vector<std::string>* names) {
  int first = 1;
  if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0))
    usage(kCheckClean, "");
  const bool json = argc > first && std::strcmp(argv[first], "--json") == 0;
  if (json) ++first;
  if (argc > first && std::strcmp(argv[first], "--") == 0) ++first;
  if (argc - first < 1) usage(kCheckUsage, "Not enough arguments");
  if (argc - first > 2) usage(kCheckUsage, "Invalid arguments");
  static const char* const kEmpty[] = {"Empty old domain name", "Empty new domain name"};
  for (int i = first; i < argc; ++i) {
    if (argv[i][0] == '\0')
      usage(kCheckUsage, argc - first == 1 ? "Empty domain name" : kEmpty[i - first]);
    if (argv[i][0] == '-') usage(kCheckUsage, std::string("Invalid argument '") + argv[i] + "'");
    names->push_back(argv[i]);
  }
  return json;
}

}  // namespace

int domainCheckMain(int argc, char** argv) {
  // As the rename: no file the check opens may become a standard stream.
  if (open_standard_descriptors() != 0) return kCheckUsage;
  // A busy database or anything else the check waits on is a finding
  // after a few seconds, never a hang.
  process::setWaitLimit(kCheckWaitLimitMs);
  std::vector<std::string> names;
  const bool json = checkArguments(argc, argv, &names);
  try {
    static const char* const kRoles[] = {"old", "new"};
    for (size_t i = 0; i < names.size(); ++i)
      names[i] = domain_name::normalized(names[i], names.size() == 1 ? "the" : kRoles[i]);
  } catch (const std::exception& e) {
    // A name the rename refuses is a rename that fails.
    reportFatal(e);
    return kCheckFails;
  }
  try {
    const CheckReport report =
        names.size() == 2 ? checkRename(names[0], names[1]) : checkName(names[0]);
    if (json)
      printJson(report, std::cout);
    else
      printText(report, std::cout);
    return report.status;
  } catch (const std::exception& e) {
    // The check logs nothing but a failure of its own, as the line printed.
    trail::open(kCheckIdent);
    reportFatal(e);
    return kCheckUsage;
  } catch (...) {
    trail::open(kCheckIdent);
    errorStream << "UNSPECIFIED ERROR OCCURED" << std::endl;
    return kCheckUsage;
  }
}

}  // namespace cli
}  // namespace zanth
