// Name locator: asks each place whether a name is there, read-only, and
// tells from the answers whether the places agree; when they do not, which
// rename command brings them under one name.
#include "cli/name_locator.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/filesystem/operations.hpp>
#include <set>

#include "cli/check_places.h"
#include "mail/auth/auth_db.h"
#include "mail/postfix/database/map_update.h"
#include "mail/postfix/errors.h"
#include "mail/postfix/mail_dirs.h"
#include "mail/postfix/virtual_check.h"

namespace zanth {
namespace cli {
namespace {

namespace fs = boost::filesystem;
namespace pf = mail::postfix;

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
  const std::string other = !partner.empty() ? partner
                            : isNewName      ? "<old_domain_name>"
                                             : "<new_domain_name>";
  return std::string(kRenameCommand) + " " + (isNewName ? other + " " + name : name + " " + other);
}

}  // namespace

CheckReport checkName(const std::string& name) {
  Findings findings;
  Presence presence;
  std::set<std::string> domainKeys;
  locateInMaps(findings, name, presence, &domainKeys);

  const fs::path directory = pf::domainDirectory(name);
  const bool held = pf::domainDirectoryHeld(name);
  presence.directory = present(directory) && !held;
  if (held)
    findings.add(kPlaceDirectory, FindingKind::kInfo,
                 "held: " + directory.string() +
                     " (mail routed here waits in the queue until a rename moves the mail "
                     "directory over the hold)");
  else
    findings.add(kPlaceDirectory, FindingKind::kInfo,
                 (presence.directory ? "found: " : "not found: ") + directory.string());
  notePresence(presence, kPlaceDirectory, presence.directory);

  mail_auth_select_style(kMailStylePostfix);
  long users = 0;
  const int found = lookUpDomain(findings, name, &users);
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

  pf::HoldRecord hold;
  const bool holdLeft = pf::holdLeftBehind(&hold);
  if (holdLeft)
    findings.add(kPlaceDelivery, FindingKind::kFailure,
                 "held by " + heldBy(hold) +
                     ": Postfix defers what it would bounce until the same rename runs again");

  CheckReport report;
  report.oldName = name;
  const bool anywhere = !presence.foundIn.empty();
  const bool disagree =
      presence.interrupted || (anywhere && (!presence.virtualDomains || !presence.directory));
  // The hold's record names both sides of the rename it was left by.
  const bool heldRename = holdLeft && (name == hold.oldName || name == hold.newName);
  const std::string heldRecovery =
      std::string(kRenameCommand) + " " + hold.oldName + " " + hold.newName;
  if (holdLeft && !disagree) {
    report.verdict = "delivery is held by " + heldBy(hold);
    report.recovery = heldRecovery;
  } else if (disagree) {
    const auto listed = [](const std::vector<std::string>& places) {
      return places.empty() ? std::string("none") : boost::algorithm::join(places, ", ");
    };
    report.verdict = "the places disagree (found in: " + listed(presence.foundIn) +
                     "; missing from: " + listed(presence.missingFrom) + ")";
    report.recovery = heldRename ? heldRecovery : recoveryCommand(name, presence, domainKeys);
  } else if (findings.failures() > 0) {
    report.verdict = "some places cannot be read";
  } else {
    report.verdict = anywhere ? "every place agrees" : kInNoPlace;
  }
  report.status = disagree || holdLeft || findings.failures() > 0 ? kCheckFails : kCheckClean;
  report.findings = findings.all();
  return report;
}

}  // namespace cli
}  // namespace zanth
