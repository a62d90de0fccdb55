// Domain check: asks each place of a rename the rename's own questions,
// read-only, and turns the answers into findings. Library diagnostics that
// would go to the terminal (mail_log) are caught and attached to the finding
// they explain. The check's own failures end in a "Fatal error: " line.
#include "cli/domain_check.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/filesystem.hpp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>

#include "cli/domain_rename.h"
#include "common/errors.h"
#include "common/file_util.h"
#include "common/idn.h"
#include "common/mail_log.h"
#include "common/syscall.h"
#include "mail/auth/auth_db.h"
#include "mail/auth/auth_domains.h"
#include "mail/handlers/handler_actions.h"
#include "mail/plugins/plugin_runner.h"
#include "mail/postfix/database/map_update.h"
#include "mail/postfix/errors.h"
#include "mail/postfix/mail_dirs.h"
#include "mail/postfix/virtual_check.h"

namespace zanth {
namespace cli {
namespace {

namespace fs = boost::filesystem;
namespace pf = mail::postfix;

constexpr char kPlaceDirectory[] = "mail_directory";
constexpr char kPlaceAuth[] = "auth_database";
constexpr char kPlacePlugins[] = "plugins";
constexpr char kPlaceHandlers[] = "handlers";
constexpr char kPlaceRefresh[] = "handlers_refresh";
constexpr char kRenameCommand[] = "mxkeep_domain_rename";

// Messages of the procedural code while a LogCapture lives, "; "-joined.
std::string g_captured_log;

void captureLog(int, const char* format, ...) {
  char text[4096];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::string message(text);
  while (!message.empty() && message.back() == '\n') message.pop_back();
  if (message.empty()) return;
  if (!g_captured_log.empty()) g_captured_log += "; ";
  g_captured_log += message;
}

// Routes mail_log into g_captured_log for its scope.
class LogCapture final {
 public:
  LogCapture() : saved_(mail_log) {
    g_captured_log.clear();
    mail_log = captureLog;
  }
  ~LogCapture() { mail_log = saved_; }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // What was logged since construction or the last take().
  std::string take() {
    std::string text;
    text.swap(g_captured_log);
    return text;
  }

 private:
  const mail_log_fn saved_;
};

const char* mapPlace(pf::VirtualMap map) {
  switch (map) {
    case pf::VirtualMap::kVirtualDomains:
      return "virtual_domains";
    case pf::VirtualMap::kVirtual:
      return "virtual";
    case pf::VirtualMap::kVmailbox:
      return "vmailbox";
  }
  return "virtual_domains";  // not reached: every enumerator is handled
}

std::string withCause(const std::string& text, const std::string& cause) {
  return cause.empty() ? text : text + ": " + cause;
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// Collects findings; the plan (changes and facts) comes before the
// hazards and failures, each in the rename's order of places.
class Findings final {
 public:
  void add(const char* place, FindingKind kind, const std::string& text) {
    Finding finding{place, kind, text, std::string(), std::string()};
    (kind == FindingKind::kHazard || kind == FindingKind::kFailure ? problems_ : plan_)
        .push_back(finding);
    if (kind == FindingKind::kHazard) ++hazards_;
    if (kind == FindingKind::kFailure) ++failures_;
  }
  void change(const char* place, const std::string& text, const std::string& before,
              const std::string& after) {
    plan_.push_back(Finding{place, FindingKind::kChange, text, before, after});
  }

  int hazards() const { return hazards_; }
  int failures() const { return failures_; }
  std::vector<Finding> all() const {
    std::vector<Finding> findings = plan_;
    findings.insert(findings.end(), problems_.begin(), problems_.end());
    return findings;
  }

 private:
  std::vector<Finding> plan_;
  std::vector<Finding> problems_;
  int hazards_ = 0;
  int failures_ = 0;
};

void checkMapState(Findings& findings, pf::VirtualMap map) {
  const std::string source = pf::textSourceLeft(map);
  if (!source.empty())
    findings.add(mapPlace(map), FindingKind::kHazard,
                 "text source left beside the map, the rename overwrites and removes it: " +
                     source);
  const int held = pf::mapLockHeld(map);
  if (held != 0)
    findings.add(mapPlace(map), FindingKind::kHazard,
                 held > 0 ? "map lock held by another process, the rename waits for it"
                          : withCause("map lock cannot be tested", std::strerror(errno)));
}

void checkMaps(Findings& findings, const std::string& oldName, const std::string& newName) {
  for (pf::VirtualMap map : pf::kVirtualMaps) {
    const char* place = mapPlace(map);
    try {
      const std::vector<pf::RecordChange> changes = pf::renameChanges(map, oldName, newName);
      for (const pf::RecordChange& change : changes) {
        findings.change(place, "", change.before, change.after);
        if (map == pf::VirtualMap::kVmailbox && pf::rewritesOtherDomainPath(change.before, oldName))
          findings.add(place, FindingKind::kHazard,
                       "the path rule rewrites a value outside the domain's directory: " +
                           change.before);
      }
      if (changes.empty()) findings.add(place, FindingKind::kInfo, "no record changes");
      for (const std::string& record : pf::recordsOf(map, newName))
        findings.add(place, FindingKind::kHazard,
                     "record of the new name already present, an undo would rename it too: " +
                         record);
    } catch (const pf::PostfixConfigurationError& e) {
      findings.add(place, FindingKind::kFailure,
                   "the map cannot be dumped, the rename fails here: " + trimmed(e.what()));
    }
    checkMapState(findings, map);
  }
}

bool present(const fs::path& path) {
  boost::system::error_code error;
  const fs::file_type type = fs::symlink_status(path, error).type();
  return type != fs::file_not_found && type != fs::status_error;
}

bool emptyDirectory(const fs::path& path) {
  boost::system::error_code error;
  return fs::is_directory(fs::symlink_status(path, error)) && fs::is_empty(path, error) && !error;
}

void checkDirectory(Findings& findings, const std::string& oldName, const std::string& newName) {
  try {
    pf::getPopUser();
  } catch (const std::exception& e) {
    findings.add(kPlaceDirectory, FindingKind::kFailure,
                 withCause("no popuser account, the rename fails here", e.what()));
  }
  const fs::path from = pf::domainDirectory(oldName);
  const fs::path to = pf::domainDirectory(newName);
  findings.change(kPlaceDirectory, "move", from.string(), to.string());
  // rename(2) replaces an empty directory and fails on anything else.
  if (!present(from))
    findings.add(kPlaceDirectory, FindingKind::kFailure,
                 "source missing, the rename fails here: " + from.string());
  else if (emptyDirectory(to))
    findings.add(kPlaceDirectory, FindingKind::kHazard,
                 "target exists and is empty, the move replaces it: " + to.string());
  else if (present(to))
    findings.add(kPlaceDirectory, FindingKind::kFailure,
                 "target exists, the move fails: " + to.string());
}

// lookUp - 1 with *users, 0, or -1 with a failure finding added.
int lookUp(Findings& findings, const std::string& name, long* users) {
  LogCapture log;
  const int found = mail_auth_domain_users(name.c_str(), users);
  if (found < 0)
    findings.add(kPlaceAuth, FindingKind::kFailure,
                 withCause(std::string("cannot read ") + mail_auth_db_path, log.take()));
  return found;
}

std::string domainRow(const std::string& name, long users) {
  return "domain " + name + " (" + std::to_string(users) + (users == 1 ? " user)" : " users)");
}

void checkAuthDb(Findings& findings, const std::string& oldName, const std::string& newName) {
  mail_auth_select_style(kMailStylePostfix);
  long oldUsers = 0, newUsers = 0;
  const int oldFound = lookUp(findings, oldName, &oldUsers);
  if (oldFound < 0) return;
  const int newFound = lookUp(findings, newName, &newUsers);
  if (oldFound > 0)
    findings.change(kPlaceAuth, mail_auth_db_path, domainRow(oldName, oldUsers),
                    domainRow(newName, oldUsers));
  else
    findings.add(kPlaceAuth, FindingKind::kInfo, "no row for " + oldName + ", nothing to rename");
  if (newFound > 0)
    findings.add(kPlaceAuth, oldFound > 0 ? FindingKind::kFailure : FindingKind::kHazard,
                 std::string(oldFound > 0 ? "new name already present, the rename fails here: "
                                          : "new name already present: ") +
                     domainRow(newName, newUsers));
}

void checkPlugins(Findings& findings) {
  std::vector<std::string> plugins;
  switch (list_rename_plugins(&plugins)) {
    case kPluginDirMissing:
      findings.add(kPlacePlugins, FindingKind::kFailure,
                   std::string("plugin directory missing, the rename fails here: ") +
                       kRenamePluginDir);
      return;
    case kPluginDirUnreadable:
    case kPluginPathTooLong:
      findings.add(kPlacePlugins, FindingKind::kFailure,
                   std::string("plugin directory cannot be read, the rename fails here: ") +
                       kRenamePluginDir);
      return;
    default:
      break;
  }
  for (const std::string& plugin : plugins) findings.add(kPlacePlugins, FindingKind::kInfo, "runs " + plugin);
  if (plugins.empty())
    findings.add(kPlacePlugins, FindingKind::kInfo, std::string("none in ") + kRenamePluginDir);
}

// The handlers aimed at target (or an address in it): name and target, and
// the target each moves to under newTarget. Unreadable handlers become
// failure findings; false when the store itself cannot be read.
struct HandlerMove {
  std::string name;
  std::string target;
  std::string movedTo;
};

bool handlersAimedAt(Findings& findings, const std::string& target, const std::string& newTarget,
                     std::vector<HandlerMove>* moves) {
  LogCapture log;
  std::vector<std::string> names;
  if (handlers_list(&names) != 0) {
    findings.add(kPlaceHandlers, FindingKind::kFailure,
                 withCause("the handler store cannot be read", log.take()));
    return false;
  }
  for (const std::string& name : names) {
    char buf[kPathMax];
    const char* current = nullptr;
    const char* moved = nullptr;
    // The target a handler has is the one a "move" to the same name gives.
    const int match = handler_target_match(name.c_str(), target.c_str(), target.c_str(), buf,
                                           sizeof buf, &current);
    const std::string currentTarget = current != nullptr ? current : "";
    char movedBuf[kPathMax];
    if (match > 0)
      handler_target_match(name.c_str(), target.c_str(), newTarget.c_str(), movedBuf,
                           sizeof movedBuf, &moved);
    if (match < 0)
      findings.add(kPlaceHandlers, FindingKind::kFailure,
                   withCause("handler " + name + " cannot be read", log.take()));
    if (match > 0) moves->push_back(HandlerMove{name, currentTarget, moved != nullptr ? moved : ""});
  }
  return true;
}

void checkHandlers(Findings& findings, const std::string& oldName, const std::string& newName) {
  std::vector<HandlerMove> moves;
  if (!handlersAimedAt(findings, oldName, newName, &moves)) return;
  LogCapture log;
  for (const HandlerMove& move : moves) {
    findings.change(kPlaceHandlers, move.name, move.target, move.movedTo);
    if (handler_rename_ready(move.name.c_str(), move.movedTo.c_str()) != 0)
      findings.add(kPlaceHandlers, FindingKind::kFailure,
                   withCause("handler " + move.name + " cannot be moved, the rename fails here",
                             log.take()));
  }
  if (moves.empty()) findings.add(kPlaceHandlers, FindingKind::kInfo, "none aimed at " + oldName);

  std::string text;
  if (moves.empty())
    text = "not run, no handler moves";
  else if (handlers_refresh_runnable())
    text = std::string("runs after each moved handler: ") + kHandlersRefreshProgram + " refresh";
  else
    text = std::string("not installed, nothing runs: ") + kHandlersRefreshProgram;
  findings.add(kPlaceRefresh, FindingKind::kInfo, text);
}

std::string plural(int n, const char* word) {
  return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

}  // namespace

CheckReport checkRename(const std::string& oldName, const std::string& newName) {
  Findings findings;
  checkMaps(findings, oldName, newName);
  checkDirectory(findings, oldName, newName);
  checkAuthDb(findings, oldName, newName);
  checkPlugins(findings);
  checkHandlers(findings, oldName, newName);

  CheckReport report;
  report.oldName = oldName;
  report.newName = newName;
  report.findings = findings.all();
  if (findings.failures() > 0) {
    report.status = kCheckFails;
    report.verdict = "the rename would fail (" + plural(findings.failures(), "failure") + ", " +
                     plural(findings.hazards(), "hazard") + ")";
  } else if (findings.hazards() > 0) {
    report.status = kCheckHazardous;
    report.verdict = "the rename would succeed, with " + plural(findings.hazards(), "hazard");
  } else {
    report.status = kCheckClean;
    report.verdict = "the rename would succeed";
  }
  return report;
}

namespace {

// Where a name was found, for the consistency verdict.
struct Presence {
  bool virtualDomains = false;
  bool directory = false;
  std::vector<std::string> foundIn;
  std::vector<std::string> missingFrom;
  bool interrupted = false;  // a text source was left beside a map
};

void notePresence(Presence& presence, const char* place, bool found) {
  (found ? presence.foundIn : presence.missingFrom).push_back(place);
}

void locateInMaps(Findings& findings, const std::string& name, Presence& presence,
                  std::set<std::string>* domainKeys) {
  for (pf::VirtualMap map : pf::kVirtualMaps) {
    const char* place = mapPlace(map);
    try {
      const std::vector<std::string> records = pf::recordsOf(map, name);
      for (const std::string& record : records)
        findings.add(place, FindingKind::kInfo, "found: " + record);
      if (records.empty()) findings.add(place, FindingKind::kInfo, "not found");
      notePresence(presence, place, !records.empty());
      if (map == pf::VirtualMap::kVirtualDomains) {
        presence.virtualDomains = !records.empty();
        pf::database::readMap(pf::kVirtualDomainsMap, [domainKeys](const std::string& line) {
          domainKeys->insert(line.substr(0, line.find_first_of(" \t")));
        });
      }
    } catch (const pf::PostfixConfigurationError& e) {
      findings.add(place, FindingKind::kFailure, "the map cannot be dumped: " + trimmed(e.what()));
    }
    const std::string source = pf::textSourceLeft(map);
    if (!source.empty()) {
      presence.interrupted = true;
      findings.add(place, FindingKind::kFailure,
                   "text source left beside the map by an interrupted rewrite: " + source);
    }
  }
}

// The other name of an interrupted rename, when the places tell it: the
// one mail directory without a virtual_domains key (name's maps moved, its
// directory not), or the one key without a directory (the reverse).
std::string partnerOf(const std::string& name, const Presence& presence,
                      const std::set<std::string>& domainKeys) {
  std::set<std::string> directories;
  boost::system::error_code error;
  const fs::path root = pf::domainDirectory(name).parent_path();
  for (fs::directory_iterator it(root, error), end; !error && it != end; it.increment(error))
    if (fs::is_directory(it->symlink_status())) directories.insert(it->path().filename().string());
  std::vector<std::string> candidates;
  if (presence.virtualDomains && !presence.directory) {
    for (const std::string& d : directories)
      if (domainKeys.count(d) == 0 && d != name) candidates.push_back(d);
  } else if (presence.directory && !presence.virtualDomains) {
    for (const std::string& k : domainKeys)
      if (directories.count(k) == 0 && k != name) candidates.push_back(k);
  }
  return candidates.size() == 1 ? candidates.front() : std::string();
}

std::string recoveryCommand(const std::string& name, const Presence& presence,
                            const std::set<std::string>& domainKeys) {
  const std::string partner = partnerOf(name, presence, domainKeys);
  // The maps move first: a name that has its maps but not its directory is
  // the new name of the rename to finish.
  const bool isNewName = !presence.directory;
  const std::string other =
      !partner.empty() ? partner : isNewName ? "<old_domain_name>" : "<new_domain_name>";
  return std::string(kRenameCommand) + " " + (isNewName ? other + " " + name : name + " " + other);
}

}  // namespace

CheckReport checkName(const std::string& name) {
  Findings findings;
  Presence presence;
  std::set<std::string> domainKeys;
  locateInMaps(findings, name, presence, &domainKeys);

  const fs::path directory = pf::domainDirectory(name);
  presence.directory = present(directory);
  findings.add(kPlaceDirectory, FindingKind::kInfo,
               (presence.directory ? "found: " : "not found: ") + directory.string());
  notePresence(presence, kPlaceDirectory, presence.directory);

  mail_auth_select_style(kMailStylePostfix);
  long users = 0;
  const int found = lookUp(findings, name, &users);
  if (found >= 0) {
    findings.add(kPlaceAuth, FindingKind::kInfo,
                 found > 0 ? "found: " + domainRow(name, users) : "not found");
    notePresence(presence, kPlaceAuth, found > 0);
  }

  std::vector<HandlerMove> handlers;
  if (handlersAimedAt(findings, name, name, &handlers)) {
    for (const HandlerMove& handler : handlers)
      findings.add(kPlaceHandlers, FindingKind::kInfo,
                   "found: " + handler.name + " aimed at " + handler.target);
    if (handlers.empty()) findings.add(kPlaceHandlers, FindingKind::kInfo, "not found");
    notePresence(presence, kPlaceHandlers, !handlers.empty());
  }

  CheckReport report;
  report.oldName = name;
  const bool anywhere = !presence.foundIn.empty();
  const bool disagree = presence.interrupted ||
                        (anywhere && (!presence.virtualDomains || !presence.directory));
  if (disagree) {
    const auto listed = [](const std::vector<std::string>& places) {
      return places.empty() ? std::string("none") : boost::algorithm::join(places, ", ");
    };
    report.verdict = "the places disagree (found in: " + listed(presence.foundIn) +
                     "; missing from: " + listed(presence.missingFrom) + ")";
    report.recovery = recoveryCommand(name, presence, domainKeys);
  } else if (findings.failures() > 0) {
    report.verdict = "some places cannot be read";
  } else {
    report.verdict = anywhere ? "every place agrees" : "the name is in no place";
  }
  report.status = disagree || findings.failures() > 0 ? kCheckFails : kCheckClean;
  report.findings = findings.all();
  return report;
}

namespace {

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
  std::vector<std::string> names;
  const bool json = checkArguments(argc, argv, &names);
  try {
    for (std::string& name : names) name = idn::toAscii(name);
  } catch (const std::exception& e) {
    // A name the rename cannot convert is a rename that fails.
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
    reportFatal(e);
    return kCheckUsage;
  } catch (...) {
    errorStream << "UNSPECIFIED ERROR OCCURED" << std::endl;
    return kCheckUsage;
  }
}

}  // namespace cli
}  // namespace zanth
