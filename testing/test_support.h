// Shared test support: running real programs with captured output, reading
// and writing files, and scratch directories. Every test binary runs inside
// the disposable sandbox of testing/sandbox.sh (see test_main.cc), so tests
// may write the fixed system paths the mail tools use.
#ifndef MXKEEP_TESTING_TEST_SUPPORT_H
#define MXKEEP_TESTING_TEST_SUPPORT_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace testing_support {

// Outcome of one child process: raw wait status and both output streams.
struct RunResult {
  int status = -1;
  std::string out;
  std::string err;

  int exitCode() const;  // -1 unless the child exited normally
};

// Runs argv[0] (a path) with argv, its standard input /dev/null.
RunResult runProgram(const std::vector<std::string>& argv);

// Runs the built mxkeep_domain_rename, whose path toolPath gives, with args.
RunResult runTool(const std::vector<std::string>& args);
std::string toolPath();
// Paths in the source and in the build tree.
std::string sourcePath(const std::string& relative);
std::string buildPath(const std::string& relative);

std::string readFile(const std::string& path);

// How long a test waits for a handshake before it fails instead of hanging.
constexpr int kHandshakeSeconds = 60;

// readFifo - what a writer puts into the fifo path, once it has closed it;
// throws std::runtime_error when that takes longer than kHandshakeSeconds.
std::string readFifo(const std::string& path);

// writeFifo - writes text into the fifo path once a reader has it open;
// throws when no reader comes within the handshake deadline.
void writeFifo(const std::string& path, const std::string& text);

// waitUntil - calls done() until it holds; throws std::runtime_error naming
// what when that takes longer than kHandshakeSeconds.
void waitUntil(const char* what, const std::function<bool()>& done);

void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644);
bool pathExists(const std::string& path);

// Runs a shell command line with /bin/sh -c.
RunResult shell(const std::string& command);

// The what() of the E that f throws, or "<nothing thrown>".
template <class E, class F>
std::string thrownWhat(F f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "<nothing thrown>";
}

// A fresh directory under /tmp, removed with its contents on destruction.
class TempDir final {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace testing_support

#endif  // MXKEEP_TESTING_TEST_SUPPORT_H
