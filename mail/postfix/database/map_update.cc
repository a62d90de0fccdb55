// Map rewrite through postmap: the self-removing text source and the two
// postmap runs (dump, rebuild) with their standard error collected for the
// exception text. Only a normal exit with status 0 counts as success.
#include "mail/postfix/database/map_update.h"

#include <sys/wait.h>
#include <unistd.h>

#include <boost/bind/bind.hpp>
#include <boost/ref.hpp>

#include <cerrno>

#include "mail/postfix/errors.h"
#include "process/pipe.h"

namespace zanth {

AutocleanOFStream::AutocleanOFStream(const std::string& fileName, std::ios_base::openmode mode)
    : std::ofstream(fileName.c_str(), mode), fileName_(fileName) {}

AutocleanOFStream::~AutocleanOFStream() {
  // The file may never have been created, or be gone already: a failed
  // unlink has nothing to tell the caller, whose errno must survive.
  const int saved = errno;
  ::unlink(fileName_.c_str());
  errno = saved;
  close();
}

namespace mail {
namespace postfix {
namespace database {
namespace {

constexpr const char* kUnknownError = "unknown error";

void appendBlock(std::string& text, const std::vector<char>& block) {
  text.append(block.begin(), block.end());
}

bool exitedWithZero(int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }

// runPostmap - runs postmap with one or two arguments (an empty second one
// ends the list), its standard output to consumer when there is one. Throws
// PostfixConfigurationError with what it wrote to standard error.
void runPostmap(const std::string& firstArgument, const std::string& secondArgument,
                const MapRewrite::Consumer* consumer) {
  std::string errors;
  process::ProcessSpec child(kPostmapPath, firstArgument, secondArgument);
  child.stderrSetting = process::kStreamPipe;
  child.stderrConsumer = boost::bind(&appendBlock, boost::ref(errors), boost::placeholders::_1);
  process::Pipe pipe;
  if (consumer != nullptr) pipe.setOutput(process::kStreamPipe, *consumer);
  pipe.addProcess(child);
  const int status = pipe.run();
  if (!exitedWithZero(status))
    throw PostfixConfigurationError(errors.empty() ? kUnknownError : errors);
}

// Hands each line to a visitor and keeps none.
class LineVisitor {
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
  const MapRewrite::Consumer consumer = lines.consumer();
  runPostmap("-s", spec, &consumer);
  lines.finish();
}

MapRewrite::MapRewrite(const std::string& spec)
    : spec_(spec), lock_(mapPath(spec), kLockHashed, kLockWait), text_(mapPath(spec)) {}

MapRewrite::~MapRewrite() = default;

void MapRewrite::dump(const Consumer& consumer) { runPostmap("-s", spec_, &consumer); }

void MapRewrite::rebuild() {
  // A failed close leaves the stream failed; postmap then reports what is
  // wrong with the file, which says more than the close would.
  text_.close();
  runPostmap(spec_, std::string(), nullptr);
}

}  // namespace database
}  // namespace postfix
}  // namespace mail
}  // namespace zanth
