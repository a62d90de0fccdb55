// Map rewrite: dumps a Postfix map with "postmap -s", runs a line filter
// over its records into the map's text source, rebuilds the database with
// postmap and always removes the text source again. Holds the map's lock
// for the whole cycle. Failures of postmap throw PostfixConfigurationError
// with its standard error text, failures of the text source one naming its
// path and the system error; pipe and lock errors pass through.
#ifndef MXKEEP_MAIL_POSTFIX_DATABASE_MAP_UPDATE_H
#define MXKEEP_MAIL_POSTFIX_DATABASE_MAP_UPDATE_H

#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include <boost/function.hpp>

#include "common/fixed_paths.h"
#include "common/syscall.h"
#include "mail/postfix/database/filters.h"
#include "process/lock.h"
#include "process/pipe.h"

namespace zanth {

// The text source of a map rewrite: an output stream on a file opened the
// safe way (never through a symbolic link, only a regular file with one
// link, close-on-exec, truncated), which remembers the first failure of
// the open, a write, the flush or the close instead of losing data
// silently, and removes its file when destroyed, whatever the outcome: the
// file exists only to be read by postmap meanwhile. errno is the same after
// destruction as before.
class AutocleanOFStream final : public std::ostream {
 public:
  explicit AutocleanOFStream(const std::string& fileName);
  ~AutocleanOFStream() override;
  AutocleanOFStream(const AutocleanOFStream&) = delete;
  AutocleanOFStream& operator=(const AutocleanOFStream&) = delete;

  const std::string& fileName() const { return fileName_; }

  // Writes out what is buffered and closes the file.
  void close();
  // The first failure, as "cannot <step> the text source <path>: <cause>";
  // empty while everything went well.
  const std::string& failure() const { return buffer_.failure(); }

 private:
  class FileBuffer final : public std::streambuf {
   public:
    FileBuffer();
    void open(const std::string& path);
    void close();
    const std::string& failure() const { return failure_; }

   protected:
    int_type overflow(int_type c) override;
    int sync() override;

   private:
    bool flushBuffer();
    void fail(const char* step, const std::string& cause);

    std::string path_;
    UniqueFd fd_;  // closed unreported on destruction, errno kept
    std::vector<char> space_;
    std::string failure_;
  };

  const std::string fileName_;
  FileBuffer buffer_;
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
class MapRewrite final {
 public:
  explicit MapRewrite(const std::string& spec);
  ~MapRewrite();
  MapRewrite(const MapRewrite&) = delete;
  MapRewrite& operator=(const MapRewrite&) = delete;

  // The text source the filtered records go to.
  std::ostream& textSource() { return text_; }

  // dump - runs "postmap -s spec", feeding its output to consumer. Throws
  // PostfixConfigurationError as soon as the text source has failed.
  void dump(const process::BlockConsumer& consumer);

  // rebuild - closes the text source and runs "postmap spec" on it, only
  // when every byte of it was written.
  void rebuild();

 private:
  // Throws PostfixConfigurationError when the text source has failed.
  void checkTextSource() const;

  const std::string spec_;
  ScopedLock lock_;
  AutocleanOFStream text_;
};

// update - rewrites the map `spec` through the line filter: every record
// of the dump passes the filter in dump order, the kept ones form the new
// map. The map is streamed, never held in memory whole. Returns how many
// records the filter changed or dropped. Throws on failure; the indexed map
// is untouched when the dump fails.
template <class L>
size_t update(const std::string& spec, L filter) {
  MapRewrite rewrite(spec);
  DataStreamFilter<L> lines(filter, rewrite.textSource());
  rewrite.dump(lines.consumer());
  lines.finish();
  rewrite.rebuild();
  return lines.changed();
}

}  // namespace database
}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_DATABASE_MAP_UPDATE_H
