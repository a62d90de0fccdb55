// Domain rename in the three virtual maps and the mail directory, with one
// undo guard per rewritten map and the command's guard around the step.
// Guards decide by the process-wide "exception in flight" test, on purpose:
// see renameDomain in the header for the outcome during the command's undo.
#include "mail/postfix/virtual_rename.h"

#include <ostream>

#include "common/errors.h"
#include "common/fixed_paths.h"
#include "common/syslog_trail.h"
#include "mail/postfix/database/filters.h"
#include "mail/postfix/database/map_update.h"
#include "mail/postfix/mail_dirs.h"
#include "process/termination.h"

namespace zanth {
namespace mail {
namespace postfix {

const char* const kVirtualDomainsMap = paths::kVirtualDomainsMap;
const char* const kVirtualMap = paths::kVirtualMap;
const char* const kVmailboxMap = paths::kVmailboxMap;

const char* const kCriticalRestoreHead = "CRITICAL ERROR: Unable to properly restore";
const char* const kCriticalRestoreTail =
    " used by Zanth.\n"
    "Mail system may be not usable at the moment and it cannot be repaired automatically.\n"
    "Constact Quillon support to resolve this issue.";
const char* const kVirtualDomainsDatabase = "Postfix Virtual Domains Database";

void writeCriticalRestoreMessage(const char* object) {
  errorStream << kCriticalRestoreHead << ' ' << object << kCriticalRestoreTail << std::endl;
}

namespace {

// undoWhileUnwinding - runs undo only while an exception is in flight; a
// failing undo must not replace that exception (nor end the process from
// a destructor), so it is swallowed and reported as a critical failure.
template <class Undo>
void undoWhileUnwinding(Undo undo) noexcept {
  if (!exceptionInFlight()) return;
  try {
    undo();
  } catch (...) {
    writeCriticalRestoreMessage(kVirtualDomainsDatabase);
  }
}

// renameIn - rewrites one map; `from` becomes `to`. Returns how many
// records changed.
template <VirtualMap Map>
size_t renameIn(const std::string& from, const std::string& to) {
  size_t changed = 0;
  withRenameFilter(Map, from, to, [&changed](const auto& filter) {
    changed = database::update(virtualMapSpec(Map), filter);
  });
  return changed;
}

using MapRename = size_t (*)(const std::string& from, const std::string& to);

// Undo guard of one rewritten map: while an exception is in flight at its
// destruction, renames newName back to oldName in that map.
template <MapRename Rename>
class MapUndoGuard final {
 public:
  MapUndoGuard(const std::string& oldName, const std::string& newName)
      : oldName_(oldName), newName_(newName) {}
  ~MapUndoGuard() {
    undoWhileUnwinding([this] { Rename(newName_, oldName_); });
  }
  MapUndoGuard(const MapUndoGuard&) = delete;
  MapUndoGuard& operator=(const MapUndoGuard&) = delete;

 private:
  const std::string& oldName_;
  const std::string& newName_;
};

}  // namespace

const char* virtualMapSpec(VirtualMap map) {
  switch (map) {
    case VirtualMap::kVirtualDomains:
      return kVirtualDomainsMap;
    case VirtualMap::kVirtual:
      return kVirtualMap;
    case VirtualMap::kVmailbox:
      return kVmailboxMap;
  }
  return kVirtualDomainsMap;  // not reached: every enumerator is handled
}

PostfixRenameResult renameDomain(const std::string& oldName, const std::string& newName,
                                 DirectoryHolds holds) {
  PostfixRenameResult result;
  size_t* records = result.records;
  if (holds == DirectoryHolds::kOn && !domainDirectoryMoved(oldName, newName))
    holdDomainDirectory(newName);
  // After each map, once it is guarded, a termination signal held during
  // its rewrite fails the step there (nothing happens while undoing).
  records[0] = renameIn<VirtualMap::kVirtualDomains>(oldName, newName);
  MapUndoGuard<renameIn<VirtualMap::kVirtualDomains>> virtualDomainsGuard(oldName, newName);
  process::checkTermination();
  records[1] = renameIn<VirtualMap::kVirtual>(oldName, newName);
  MapUndoGuard<renameIn<VirtualMap::kVirtual>> virtualGuard(oldName, newName);
  process::checkTermination();
  records[2] = renameIn<VirtualMap::kVmailbox>(oldName, newName);
  MapUndoGuard<renameIn<VirtualMap::kVmailbox>> vmailboxGuard(oldName, newName);
  process::checkTermination();
  // The work of an earlier run that died after this point: the same rename
  // run again must complete, not fail on its own earlier success.
  if (domainDirectoryMoved(oldName, newName)) return result;
  renameDomainDirectory(getPopUser(), oldName, newName);
  result.directoryMoved = true;
  return result;
}

PostfixRenameGuard::~PostfixRenameGuard() {
  if (!exceptionInFlight()) return;
  bool restored = false;
  undoWhileUnwinding([this, &restored] {
    renameDomain(newName_, oldName_, holds_);
    restored = true;
  });
  trail::line(restored ? LOG_WARNING : LOG_CRIT,
              "rename undone" + trail::field("step", "postfix") +
                  trail::field("result", restored ? "ok" : "failed"));
}

}  // namespace postfix
}  // namespace mail
}  // namespace zanth
