// Places of the domain check: the findings collector and the read-only
// questions both forms ask. Messages the procedural code logs while a
// question is asked are attached to the finding they explain.
#include "cli/check_places.h"

#include <boost/filesystem/operations.hpp>

#include "common/file_util.h"
#include "common/mail_log.h"
#include "mail/auth/auth_db.h"
#include "mail/auth/auth_domains.h"
#include "mail/handlers/handler_mass.h"
#include "mail/postfix/mail_dirs.h"
#include "mail/postfix/virtual_check.h"

namespace zanth {
namespace cli {

namespace fs = boost::filesystem;
namespace pf = mail::postfix;

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

void Findings::add(const char* place, FindingKind kind, const std::string& text) {
  Finding finding{place, kind, text, std::string(), std::string()};
  (kind == FindingKind::kHazard || kind == FindingKind::kFailure ? problems_ : plan_)
      .push_back(finding);
  if (kind == FindingKind::kHazard) ++hazards_;
  if (kind == FindingKind::kFailure) ++failures_;
}

void Findings::change(const char* place, const std::string& text, const std::string& before,
                      const std::string& after) {
  plan_.push_back(Finding{place, FindingKind::kChange, text, before, after});
}

std::vector<Finding> Findings::all() const {
  std::vector<Finding> findings = plan_;
  findings.insert(findings.end(), problems_.begin(), problems_.end());
  return findings;
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

int lookUpDomain(Findings& findings, const std::string& name, long* users) {
  MailLogCapture log;
  const int found = mail_auth_domain_users(name.c_str(), users);
  if (found < 0)
    findings.add(kPlaceAuth, FindingKind::kFailure,
                 withCause(std::string("cannot read ") + mail_auth_db_path, log.take()));
  return found;
}

std::string domainRow(const std::string& name, long users) {
  return "domain " + name + " (" + std::to_string(users) + (users == 1 ? " user)" : " users)");
}

std::string heldBy(const pf::HoldRecord& record) {
  return "a stopped rename of " + record.oldName + " to " + record.newName;
}

bool handlersAimedAt(Findings& findings, const std::string& target, const std::string& newTarget,
                     std::vector<HandlerMove>* moves) {
  MailLogCapture log;
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
    if (match > 0)
      moves->push_back(HandlerMove{name, currentTarget, moved != nullptr ? moved : ""});
  }
  return true;
}

namespace {

// The questions of the check, asked for a yes or no: a place that cannot
// be read answers no, and the step that reads it fails on its own.
bool hasRow(const std::string& name, long* users) {
  Findings ignored;
  return lookUpDomain(ignored, name, users) > 0;
}

bool hasHandlers(const std::string& name) {
  Findings ignored;
  std::vector<HandlerMove> moves;
  return handlersAimedAt(ignored, name, name, &moves) && !moves.empty();
}

}  // namespace

std::vector<Clash> clashes(const std::string& oldName, const std::string& newName) {
  std::vector<Clash> found;
  const std::vector<int> routed = pf::domainsRouted({oldName, newName});
  const bool oldRouted = routed[0] == 1;
  if (oldRouted && routed[1] == 1)
    found.push_back(
        {mapPlace(pf::VirtualMap::kVirtualDomains), "keys " + oldName + " and " + newName});

  const fs::path from = pf::domainDirectory(oldName), to = pf::domainDirectory(newName);
  if (present(from) && present(to) && !pf::domainDirectoryHeld(newName) && !emptyDirectory(to))
    found.push_back({kPlaceDirectory, from.string() + " and " + to.string()});

  mail_auth_select_style(kMailStylePostfix);
  long oldUsers = 0, newUsers = 0;
  if (hasRow(oldName, &oldUsers) && hasRow(newName, &newUsers))
    found.push_back(
        {kPlaceAuth, domainRow(oldName, oldUsers) + " and " + domainRow(newName, newUsers)});

  if (oldRouted && hasHandlers(oldName) && hasHandlers(newName))
    found.push_back({kPlaceHandlers, "handlers aimed at " + oldName + " and at " + newName});
  return found;
}

std::string clashRefusal(const std::string& oldName, const std::string& newName,
                         const std::vector<Clash>& found) {
  std::string places;
  for (const Clash& clash : found)
    places += (places.empty() ? "" : ", ") + std::string(clash.place);
  return "both " + oldName + " and " + newName + " are present in " + places +
         ": renaming one onto the other would merge two domains";
}

}  // namespace cli
}  // namespace zanth
