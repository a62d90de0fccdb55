// Domain rename on the Postfix side: rewrites the virtual_domains, virtual
// and vmailbox maps for the new name, then renames the domain's mail
// directory. Each rewritten map is guarded so that a later failure of the
// step puts it back; the command guards the whole step the same way. A
// failed undo is swallowed and reported with the critical-restore message.
#ifndef MXKEEP_MAIL_POSTFIX_VIRTUAL_RENAME_H
#define MXKEEP_MAIL_POSTFIX_VIRTUAL_RENAME_H

#include <iterator>
#include <string>

#include "mail/postfix/database/filters.h"
#include "mail/postfix/mail_dirs.h"

namespace zanth {
namespace mail {
namespace postfix {

// The maps' names ("hash:<path>"), in the order they are rewritten.
extern const char* const kVirtualDomainsMap;
extern const char* const kVirtualMap;
extern const char* const kVmailboxMap;

// The three maps, in the order they are rewritten.
enum class VirtualMap { kVirtualDomains, kVirtual, kVmailbox };
constexpr VirtualMap kVirtualMaps[] = {VirtualMap::kVirtualDomains, VirtualMap::kVirtual,
                                       VirtualMap::kVmailbox};

// virtualMapSpec - the name ("hash:<path>") postmap knows the map by.
const char* virtualMapSpec(VirtualMap map);

// withRenameFilter - calls use(filter) with the line filter that renames
// `from` to `to` in `map`: the one rule per map that the rename, its undo
// and the read-only check all apply, so that they cannot disagree. The
// filter holds references to from, to and locals of this call; it must
// not outlive use().
template <class Use>
void withRenameFilter(VirtualMap map, const std::string& from, const std::string& to, Use use) {
  namespace db = database;
  switch (map) {
    case VirtualMap::kVirtualDomains:
      use(db::ElementsFilter<db::ReplaceElementFilterRef>(db::ReplaceElementFilterRef(from, to)));
      return;
    case VirtualMap::kVirtual:
      use(db::ElementsFilter<db::ReplaceDomainPart>(db::ReplaceDomainPart(from, to, false)));
      return;
    case VirtualMap::kVmailbox: {
      const std::string fromPath = relativeDomainPath(from).string();
      const std::string toPath = relativeDomainPath(to).string();
      use(db::KeyValueFilter<db::ReplaceDomainPart, db::ReplaceDomainPath>(
          db::ReplaceDomainPart(from, to, false), db::ReplaceDomainPath(fromPath, toPath)));
      return;
    }
  }
}

// The fixed parts of the critical-restore message: head, one blank, the
// object that could not be restored, tail.
extern const char* const kCriticalRestoreHead;
extern const char* const kCriticalRestoreTail;
// The object every Postfix undo names, whichever map it was restoring.
extern const char* const kVirtualDomainsDatabase;

// writeCriticalRestoreMessage - the critical-restore message for `object`,
// as one message ended by a line end, to the error stream.
void writeCriticalRestoreMessage(const char* object);

// Whether a rename keeps a hold in the mail directory's other place while
// the maps change (see holdDomainDirectory): wanted while Postfix delivers,
// so that no mail makes a directory of either name meanwhile.
enum class DirectoryHolds { kOff, kOn };

// What one run of the Postfix step changed: the records of each map, in
// the order of kVirtualMaps, and whether it moved the mail directory (not
// when an earlier run had moved it already).
struct PostfixRenameResult {
  size_t records[std::size(kVirtualMaps)] = {};
  bool directoryMoved = false;
};

// renameDomain - renames oldName to newName (ASCII) in the three maps and
// the mail directory. With holds on, newName's place is held before the
// first map changes, and the move leaves the hold in oldName's place.
// Throws PostfixConfigurationError or the directory's filesystem_error;
// what it changed before the failure is put back first.
//
// The map guards act whenever an exception is in flight anywhere in the
// process. Run from a destructor during unwinding (the command's undo), a
// successful renameDomain(new, old) therefore moves the directory back but
// leaves the maps under the name they had before it was called.
PostfixRenameResult renameDomain(const std::string& oldName, const std::string& newName,
                                 DirectoryHolds holds = DirectoryHolds::kOff);

// The command's guard around the whole Postfix step. Create it once
// renameDomain(oldName, newName) has returned; while an exception is in
// flight when it is destroyed, it runs renameDomain(newName, oldName) with
// the same holds, reporting (never throwing) a failure of that run. Holds
// references to the names.
//
//   renameDomain(oldName, newName);
//   PostfixRenameGuard guard(oldName, newName);
//   ...later steps that may throw...
class PostfixRenameGuard final {
 public:
  PostfixRenameGuard(const std::string& oldName, const std::string& newName,
                     DirectoryHolds holds = DirectoryHolds::kOff)
      : oldName_(oldName), newName_(newName), holds_(holds) {}
  ~PostfixRenameGuard();
  PostfixRenameGuard(const PostfixRenameGuard&) = delete;
  PostfixRenameGuard& operator=(const PostfixRenameGuard&) = delete;

 private:
  const std::string& oldName_;
  const std::string& newName_;
  const DirectoryHolds holds_;
};

}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_VIRTUAL_RENAME_H
