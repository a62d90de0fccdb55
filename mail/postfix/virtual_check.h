// Read-only look at the three virtual maps for the domain check: which
// records a rename would change, computed by running the rename's own line
// filters over a "postmap -s" dump, so the answer cannot drift from what
// the rename does. Takes no lock and writes nothing; a failed dump throws
// PostfixConfigurationError with postmap's text, as the rename's would.
#ifndef MXKEEP_MAIL_POSTFIX_VIRTUAL_CHECK_H
#define MXKEEP_MAIL_POSTFIX_VIRTUAL_CHECK_H

#include <string>
#include <vector>

#include "mail/postfix/virtual_rename.h"

namespace zanth {
namespace mail {
namespace postfix {

// One record a rename changes, both sides as the rename writes records
// ("key value"); after is empty when the rename drops the record.
struct RecordChange {
  std::string before;
  std::string after;
};

// renameChanges - the records of `map` that renaming from to `to` would
// change, in dump order. Records the rename merely normalises (blanks,
// list joiners) are not changes.
std::vector<RecordChange> renameChanges(VirtualMap map, const std::string& from,
                                        const std::string& to);

// recordsOf - the records of `map` that a rename of `name` would touch:
// where the name lives in that map.
std::vector<std::string> recordsOf(VirtualMap map, const std::string& name);

// rewritesOtherDomainPath - true when the vmailbox record `before` (as in
// a RecordChange) has a value the path rule rewrites although it lies
// outside from's directory ("a.example.org/x/" when renaming a.example).
bool rewritesOtherDomainPath(const std::string& before, const std::string& from);

// textSourceLeft - the text source of `map`, when one lies beside the
// database: a rewrite was interrupted. Empty when there is none.
std::string textSourceLeft(VirtualMap map);

// domainsRouted - for each of names, 1 when it is a key of the virtual
// domains map (mail to it is ours), 0 when not, -1 when postmap cannot
// tell. One lookup run, no dump: every answer comes from one version of the
// map, even while another process rebuilds it.
std::vector<int> domainsRouted(const std::vector<std::string>& names);
int domainRouted(const std::string& name);

// mapLockHeld - 1 when another process holds the map's rewrite lock, 0
// when not, -1 when that cannot be told.
int mapLockHeld(VirtualMap map);

}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_VIRTUAL_CHECK_H
