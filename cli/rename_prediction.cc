// Rename prediction: asks each place the rename's own questions, read-only,
// in the rename's order, and turns the answers into findings.
#include "cli/rename_prediction.h"

#include <cerrno>
#include <cstring>

#include "cli/check_places.h"
#include "common/mail_log.h"
#include "mail/auth/auth_db.h"
#include "mail/handlers/handler_actions.h"
#include "mail/plugins/plugin_runner.h"
#include "mail/postfix/errors.h"
#include "mail/postfix/mail_dirs.h"
#include "mail/postfix/virtual_check.h"

namespace zanth {
namespace cli {
namespace {

namespace pf = mail::postfix;

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

void checkDirectory(Findings& findings, const std::string& oldName, const std::string& newName) {
  try {
    pf::getPopUser();
  } catch (const std::exception& e) {
    findings.add(kPlaceDirectory, FindingKind::kFailure,
                 withCause("no popuser account, the rename fails here", e.what()));
  }
  const auto from = pf::domainDirectory(oldName);
  const auto to = pf::domainDirectory(newName);
  if (pf::domainDirectoryMoved(oldName, newName)) {
    findings.add(kPlaceDirectory, FindingKind::kInfo,
                 "already under the new name, the rename takes the move as done: " + to.string());
    return;
  }
  findings.change(kPlaceDirectory, "move", from.string(), to.string());
  // rename(2) replaces an empty directory; anything else there is a clash.
  if (!present(from))
    findings.add(kPlaceDirectory, FindingKind::kFailure,
                 "source missing, the rename fails here: " + from.string());
  else if (pf::domainDirectoryHeld(newName))
    findings.add(kPlaceDirectory, FindingKind::kInfo,
                 "held by a stopped rename, the move replaces the hold: " + to.string());
  else if (emptyDirectory(to))
    findings.add(kPlaceDirectory, FindingKind::kHazard,
                 "target exists and is empty, the move replaces it: " + to.string());
}

void checkAuthDb(Findings& findings, const std::string& oldName, const std::string& newName) {
  mail_auth_select_style(kMailStylePostfix);
  long oldUsers = 0, newUsers = 0;
  const int oldFound = lookUpDomain(findings, oldName, &oldUsers);
  if (oldFound < 0) return;
  const int newFound = lookUpDomain(findings, newName, &newUsers);
  if (oldFound > 0)
    findings.change(kPlaceAuth, mail_auth_db_path, domainRow(oldName, oldUsers),
                    domainRow(newName, oldUsers));
  else
    findings.add(kPlaceAuth, FindingKind::kInfo, "no row for " + oldName + ", nothing to rename");
  // Both rows present is a clash, reported with the others.
  if (newFound > 0 && oldFound == 0)
    findings.add(kPlaceAuth, FindingKind::kHazard,
                 "new name already present: " + domainRow(newName, newUsers));
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
  for (const std::string& plugin : plugins)
    findings.add(kPlacePlugins, FindingKind::kInfo, "runs " + plugin);
  if (plugins.empty())
    findings.add(kPlacePlugins, FindingKind::kInfo, std::string("none in ") + kRenamePluginDir);
}

void checkHandlers(Findings& findings, const std::string& oldName, const std::string& newName) {
  std::vector<HandlerMove> moves;
  if (!handlersAimedAt(findings, oldName, newName, &moves)) return;
  MailLogCapture log;
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

// checkDelivery - what the rename does to mail delivery: only while
// Postfix runs, or a hold was left behind, is there anything to tell.
void checkDelivery(Findings& findings) {
  pf::HoldRecord hold;
  if (pf::holdLeftBehind(&hold))
    findings.add(kPlaceDelivery, FindingKind::kHazard,
                 "held by " + heldBy(hold) + ", the rename releases the hold at its end");
  else if (pf::postfixRunning())
    findings.add(kPlaceDelivery, FindingKind::kInfo,
                 "Postfix runs: mail to be bounced or delivered meanwhile waits in the queue "
                 "until the rename ends");
}

// checkClashes - the places the rename refuses to merge, asked exactly as
// the rename asks them.
void checkClashes(Findings& findings, const std::string& oldName, const std::string& newName) {
  for (const Clash& clash : clashes(oldName, newName))
    findings.add(clash.place, FindingKind::kFailure,
                 "both names present, the rename refuses before changing anything: " + clash.what);
}

}  // namespace

CheckReport checkRename(const std::string& oldName, const std::string& newName) {
  CheckReport report;
  report.oldName = oldName;
  report.newName = newName;
  if (oldName == newName) {
    report.verdict = "the names are the same, the rename changes nothing";
    return report;
  }
  Findings findings;
  checkDelivery(findings);
  checkClashes(findings, oldName, newName);
  checkMaps(findings, oldName, newName);
  checkDirectory(findings, oldName, newName);
  checkAuthDb(findings, oldName, newName);
  checkPlugins(findings);
  checkHandlers(findings, oldName, newName);

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

}  // namespace cli
}  // namespace zanth
