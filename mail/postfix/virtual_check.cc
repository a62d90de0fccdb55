// Map look-ups of the domain check: each record of the dump goes through
// the rename's filter and through the same filter renaming the name to
// itself, which only normalises; where the two differ, the rename changes
// the record. Malformed records the filters report on std::clog are
// dropped by the rename and shown as such, so clog is silenced meanwhile.
#include "mail/postfix/virtual_check.h"

#include <sys/stat.h>

#include <iostream>
#include <sstream>

#include "common/fixed_paths.h"
#include "mail/postfix/database/map_update.h"
#include "mail/postfix/postfix_programs.h"
#include "process/lock.h"

namespace zanth {
namespace mail {
namespace postfix {
namespace {

// Sends std::clog to a private buffer for its scope.
class ClogSilencer final {
 public:
  ClogSilencer() : saved_(std::clog.rdbuf(sink_.rdbuf())) {}
  ~ClogSilencer() { std::clog.rdbuf(saved_); }
  ClogSilencer(const ClogSilencer&) = delete;
  ClogSilencer& operator=(const ClogSilencer&) = delete;

 private:
  std::ostringstream sink_;
  std::streambuf* const saved_;
};

}  // namespace

std::vector<RecordChange> renameChanges(VirtualMap map, const std::string& from,
                                        const std::string& to) {
  std::vector<RecordChange> changes;
  ClogSilencer silence;
  withRenameFilter(map, from, to, [&](const auto& rename) {
    withRenameFilter(map, from, from, [&](const auto& normalise) {
      database::readMap(virtualMapSpec(map), [&](const std::string& line) {
        std::string before = line;
        std::string after = line;
        if (!normalise(before)) {
          changes.push_back(RecordChange{line, std::string()});
          return;
        }
        if (!rename(after)) after.clear();
        if (after != before) changes.push_back(RecordChange{before, after});
      });
    });
  });
  return changes;
}

std::vector<std::string> recordsOf(VirtualMap map, const std::string& name) {
  // A line feed never occurs inside a record, so renaming the name to
  // itself plus one changes exactly the records the name appears in.
  std::vector<std::string> records;
  for (const RecordChange& change : renameChanges(map, name, name + "\n"))
    if (!change.after.empty()) records.push_back(change.before);
  return records;
}

bool rewritesOtherDomainPath(const std::string& before, const std::string& from) {
  const std::string::size_type blank = before.find(' ');
  if (blank == std::string::npos) return false;
  const std::string prefix = relativeDomainPath(from).string();
  const std::string::size_type start = blank + 1;
  if (before.compare(start, prefix.size(), prefix) != 0) return false;
  const std::string::size_type next = start + prefix.size();
  return next < before.size() && before[next] != '/';
}

std::string textSourceLeft(VirtualMap map) {
  const std::string path = database::mapPath(virtualMapSpec(map));
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 ? path : std::string();
}

std::vector<int> domainsRouted(const std::vector<std::string>& names) {
  // "postmap -q -" reads the keys from its input and prints "key<tab>value"
  // for each one found; it exits 1 when none is.
  std::string keys, found;
  for (const std::string& name : names) keys += name + "\n";
  const int status =
      postfixProgramStatus({paths::kPostmapProgram, "-q", "-", paths::kVirtualDomainsMap}, &found,
                           keys);
  std::vector<int> routed(names.size(), status == 0 || status == 1 ? 0 : -1);
  std::istringstream lines(found);
  for (std::string line; status == 0 && std::getline(lines, line);) {
    const std::string key = line.substr(0, line.find_first_of(" \t"));
    for (size_t i = 0; i < names.size(); ++i)
      if (names[i] == key) routed[i] = 1;
  }
  return routed;
}

int domainRouted(const std::string& name) { return domainsRouted({name}).front(); }

int mapLockHeld(VirtualMap map) {
  // The kind the map rewrite's ScopedLock takes.
  return lockHeld(database::mapPath(virtualMapSpec(map)), kLockHashed);
}

}  // namespace postfix
}  // namespace mail
}  // namespace zanth
