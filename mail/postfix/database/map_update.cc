// Map rewrite through postmap: the self-removing text source and the two
// postmap runs (dump, rebuild) with their standard error collected for the
// exception text. Only a normal exit with status 0 counts as success.
#include "mail/postfix/database/map_update.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>


#include <cerrno>
#include <cstring>
#include <utility>

#include "common/descriptors.h"
#include "common/syscall.h"
#include "mail/postfix/errors.h"
#include "mail/postfix/postfix_programs.h"
#include "process/pipe.h"

namespace zanth {

namespace {

constexpr mode_t kTextSourceMode = 0644;
constexpr size_t kTextBlock = 64 * 1024;

}  // namespace

AutocleanOFStream::FileBuffer::FileBuffer() : space_(kTextBlock) {
  setp(space_.data(), space_.data() + space_.size());
}

void AutocleanOFStream::FileBuffer::fail(const char* step, const std::string& cause) {
  if (failure_.empty())
    failure_ = std::string("cannot ") + step + " the text source " + path_ + ": " + cause;
}

// Opens path as Postfix's own programs open files root writes in shared
// places: O_NOFOLLOW refuses a symbolic link at the path, O_NONBLOCK keeps
// a fifo planted there from hanging the open, and the checks on the open
// file refuse anything but a regular file with exactly one link, so that
// truncating it can only ever destroy a stale text source of our own.
void AutocleanOFStream::FileBuffer::open(const std::string& path) {
  path_ = path;
  UniqueFd owned(zanth::retryEintr([&] {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                  kTextSourceMode);
  }));
  const int fd = owned.get();
  if (fd < 0) return fail("create", std::strerror(errno));
  struct stat st {};
  if (::fstat(fd, &st) != 0) return fail("create", std::strerror(errno));
  if (!S_ISREG(st.st_mode) || st.st_nlink != 1)
    return fail("create", "not a regular file with one link");
  if (zanth::retryEintr([&] { return ::ftruncate(fd, 0); }) != 0)
    return fail("create", std::strerror(errno));
  fd_ = std::move(owned);
}

bool AutocleanOFStream::FileBuffer::flushBuffer() {
  const char* data = pbase();
  size_t left = static_cast<size_t>(pptr() - pbase());
  setp(space_.data(), space_.data() + space_.size());
  if (!failure_.empty() || fd_.get() < 0) return false;
  if (zanth::writeFully(fd_.get(), data, left) != 0) {
    fail("write", std::strerror(errno));
    return false;
  }
  return true;
}

AutocleanOFStream::FileBuffer::int_type AutocleanOFStream::FileBuffer::overflow(int_type c) {
  if (!flushBuffer()) return traits_type::eof();
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return c;
}

int AutocleanOFStream::FileBuffer::sync() { return flushBuffer() ? 0 : -1; }

void AutocleanOFStream::FileBuffer::close() {
  if (fd_.get() < 0) return;
  flushBuffer();
  // A close can report a write that failed late (NFS, quota).
  if (zanth::closeDescriptor(fd_.release()) != 0) fail("close", std::strerror(errno));
}

AutocleanOFStream::AutocleanOFStream(const std::string& fileName)
    : std::ostream(nullptr), fileName_(fileName) {
  rdbuf(&buffer_);
  buffer_.open(fileName);
  if (!buffer_.failure().empty()) setstate(std::ios_base::badbit);
}

AutocleanOFStream::~AutocleanOFStream() {
  // The file may never have been created, or be gone already: a failed
  // unlink has nothing to tell the caller, whose errno must survive.
  ErrnoSaver keep;
  ::unlink(fileName_.c_str());
}

void AutocleanOFStream::close() {
  buffer_.close();
  if (!buffer_.failure().empty()) setstate(std::ios_base::badbit);
}

namespace mail {
namespace postfix {
namespace database {
namespace {

// runPostmap - runs postmap with one or two arguments (an empty second one
// ends the list), its standard output to consumer when there is one.
void runPostmap(const std::string& firstArgument, const std::string& secondArgument,
                const process::BlockConsumer* consumer) {
  std::vector<std::string> argv{kPostmapPath, firstArgument};
  if (!secondArgument.empty()) argv.push_back(secondArgument);
  runPostfixProgram(argv, consumer);
}

// Hands each line to a visitor and keeps none.
class LineVisitor final {
 public:
  explicit LineVisitor(const boost::function<void(const std::string&)>& visit) : visit_(visit) {}
  bool operator()(const std::string& line) const {
    visit_(line);
    return false;
  }

 private:
  const boost::function<void(const std::string&)>& visit_;
};

}  // namespace

std::string mapPath(const std::string& spec) {
  const std::string::size_type colon = spec.find(':');
  return colon == std::string::npos ? spec : spec.substr(colon + 1);
}

void readMap(const std::string& spec, const boost::function<void(const std::string&)>& visit) {
  std::ostream nowhere(nullptr);  // LineVisitor keeps no line
  DataStreamFilter<LineVisitor> lines(LineVisitor(visit), nowhere);
  const process::BlockConsumer consumer = lines.consumer();
  runPostmap("-s", spec, &consumer);
  lines.finish();
}

MapRewrite::MapRewrite(const std::string& spec)
    : spec_(spec), lock_(mapPath(spec), kLockHashed, kLockWait), text_(mapPath(spec)) {
  checkTextSource();
}

MapRewrite::~MapRewrite() = default;

void MapRewrite::checkTextSource() const {
  if (!text_.failure().empty()) throw PostfixConfigurationError(text_.failure());
}

void MapRewrite::dump(const process::BlockConsumer& consumer) {
  // A text source that has lost a record is useless: stop the dump at once
  // (the pipe stops postmap) rather than filter the rest into nowhere.
  const process::BlockConsumer checked = [this, &consumer](const std::vector<char>& block) {
    consumer(block);
    checkTextSource();
  };
  runPostmap("-s", spec_, &checked);
  checkTextSource();
}

void MapRewrite::rebuild() {
  // The map is rebuilt only from a text source written whole: a short one
  // would silently drop the records that did not fit.
  text_.close();
  checkTextSource();
  runPostmap(spec_, std::string(), nullptr);
}

}  // namespace database
}  // namespace postfix
}  // namespace mail
}  // namespace zanth
