// Map rewrite: dumps a Postfix map with "postmap -s", runs a line filter
// over its records into the map's text source, rebuilds the database with
// postmap and always removes the text source again. Holds the map's lock
// for the whole cycle. Failures of postmap throw PostfixConfigurationError
// with its standard error text; pipe and lock errors pass through.
#ifndef MXKEEP_MAIL_POSTFIX_DATABASE_MAP_UPDATE_H
#define MXKEEP_MAIL_POSTFIX_DATABASE_MAP_UPDATE_H

#include <fstream>
#include <string>
#include <vector>

#include <boost/function.hpp>

#include "mail/postfix/database/filters.h"
#include "common/fixed_paths.h"
#include "process/lock.h"

namespace zanth {

// An output file stream that removes its file when destroyed, whatever the
// outcome: the file exists only to be read by someone else meanwhile.
// errno is the same after destruction as before.
class AutocleanOFStream : public std::ofstream {
 public:
  explicit AutocleanOFStream(const std::string& fileName,
                             std::ios_base::openmode mode = std::ios_base::out | std::ios_base::trunc);
  ~AutocleanOFStream() override;
  AutocleanOFStream(const AutocleanOFStream&) = delete;
  AutocleanOFStream& operator=(const AutocleanOFStream&) = delete;

  const std::string& fileName() const { return fileName_; }

 private:
  const std::string fileName_;
};

namespace mail {
namespace postfix {
namespace database {

// The program that dumps and rebuilds maps.
constexpr const char* kPostmapPath = paths::kPostmapProgram;

// mapPath - the file part of a map name ("type:path"), or the whole name
// when it has no ':'.
std::string mapPath(const std::string& spec);

// readMap - runs "postmap -s spec" and hands every record of the dump, in
// dump order and without its line feed, to visit. Read-only: no lock, no
// text source; postmap's own shared lock on the database is all that is
// taken. Throws PostfixConfigurationError as update() does for the dump.
void readMap(const std::string& spec, const boost::function<void(const std::string&)>& visit);

// One dump-filter-rebuild cycle of a map. Construction takes the map's
// lock (waiting) and opens the text source; destruction removes the text
// source, then releases the lock. Use through update().
class MapRewrite {
 public:
  typedef boost::function<void(const std::vector<char>&)> Consumer;

  explicit MapRewrite(const std::string& spec);
  ~MapRewrite();
  MapRewrite(const MapRewrite&) = delete;
  MapRewrite& operator=(const MapRewrite&) = delete;

  // The text source the filtered records go to.
  std::ostream& textSource() { return text_; }

  // dump - runs "postmap -s spec", feeding its output to consumer.
  void dump(const Consumer& consumer);

  // rebuild - closes the text source and runs "postmap spec" on it.
  void rebuild();

 private:
  const std::string spec_;
  ScopedLock lock_;
  AutocleanOFStream text_;
};

// update - rewrites the map `spec` through the line filter: every record
// of the dump passes the filter in dump order, the kept ones form the new
// map. The map is streamed, never held in memory whole. Throws on failure;
// the indexed map is untouched when the dump fails.
template <class L>
void update(const std::string& spec, L filter) {
  MapRewrite rewrite(spec);
  DataStreamFilter<L> lines(filter, rewrite.textSource());
  rewrite.dump(lines.consumer());
  lines.finish();
  rewrite.rebuild();
}

}  // namespace database
}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_DATABASE_MAP_UPDATE_H
