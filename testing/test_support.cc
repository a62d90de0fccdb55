// Test support: child processes (programs and forked pieces of a test) with
// captured streams, files, scratch dirs. Failures to set up throw.
#include "testing/test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "common/syscall.h"
#include "testing/child.h"

namespace testing_support {

// runInChild - forks a child, its input /dev/null and its output and
// error pipes, which runs `child` and exits with its result; collects both
// streams until every holder, the child's own children too, has closed
// them, then reaps the child. Nothing is written to the child, so the test
// process never meets SIGPIPE.
RunResult runInChild(const std::function<int()>& child) {
  int out[2], err[2];
  if (pipe(out) != 0 || pipe(err) != 0)
    throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (int fd : {null, out[0], out[1], err[0], err[1]}) close(fd);
    int status = child();
    std::fflush(nullptr);
    _exit(status);
  }
  close(out[1]);
  close(err[1]);
  RunResult result;
  int fds[2] = {out[0], err[0]};
  std::string* into[2] = {&result.out, &result.err};
  char buf[65536];
  while (fds[0] >= 0 || fds[1] >= 0) {
    struct pollfd ready[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
    if (poll(ready, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i] < 0 || ready[i].revents == 0) continue;
      ssize_t n = read(fds[i], buf, sizeof buf);
      if (n > 0) {
        into[i]->append(buf, n);
      } else if (n == 0 || errno != EINTR) {
        close(fds[i]);
        fds[i] = -1;
      }
    }
  }
  while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
  }
  return result;
}

int RunResult::exitCode() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

RunResult runProgram(const std::vector<std::string>& argv) {
  return runInChild([&argv] {
    signal(SIGPIPE, SIG_DFL);  // whatever the test process has
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    return 127;
  });
}

std::string toolPath() { return MXKEEP_TOOL_PATH; }
std::string sourcePath(const std::string& relative) {
  return std::string(MXKEEP_SOURCE_DIR) + "/" + relative;
}
std::string buildPath(const std::string& relative) {
  return std::string(MXKEEP_BUILD_DIR) + "/" + relative;
}

RunResult runTool(const std::vector<std::string>& args) {
  std::vector<std::string> argv{toolPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv);
}

RunResult shell(const std::string& command) { return runProgram({"/bin/sh", "-c", command}); }

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

namespace {

long monotonicMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000L + now.tv_nsec / 1000000L;
}

}  // namespace

std::string readFifo(const std::string& path) {
  // Opened without waiting for a writer; poll then waits with a deadline.
  const zanth::UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (fd.get() < 0) throw std::runtime_error("cannot open " + path);
  const long deadline = monotonicMs() + kHandshakeSeconds * 1000L;
  std::string text;
  for (long left; (left = deadline - monotonicMs()) > 0;) {
    struct pollfd p = {fd.get(), POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) < 0 && errno != EINTR) break;
    char buf[4096];
    const ssize_t n = read(fd.get(), buf, sizeof buf);
    if (n > 0) text.append(buf, static_cast<size_t>(n));
    // End of file counts once a writer has been there.
    if (n == 0 && (!text.empty() || (p.revents & POLLHUP) != 0)) return text;
    if (n < 0 && errno != EAGAIN && errno != EINTR) break;
  }
  throw std::runtime_error("no writer finished with " + path + " in time");
}

void writeFifo(const std::string& path, const std::string& text) {
  // A non-blocking open fails with ENXIO until a reader is there.
  zanth::UniqueFd fd;
  waitUntil(("a reader of " + path).c_str(), [&] {
    fd.reset(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0 && errno != ENXIO) throw std::runtime_error("cannot open " + path);
    return fd.get() >= 0;
  });
  if (write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    throw std::runtime_error("cannot write " + path);
}

void waitUntil(const char* what, const std::function<bool()>& done) {
  const long deadline = monotonicMs() + kHandshakeSeconds * 1000L;
  while (!done()) {
    if (monotonicMs() > deadline) throw std::runtime_error(std::string("timed out waiting: ") + what);
    usleep(1000);
  }
}

void writeFile(const std::string& path, const std::string& content, mode_t mode) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path);
    out << content;
  }
  chmod(path.c_str(), mode);
}

bool pathExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

TempDir::TempDir() {
  char pattern[] = "/tmp/mxkeep-test.XXXXXX";
  if (mkdtemp(pattern) == nullptr)
    throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
  path_ = pattern;
}

TempDir::~TempDir() {
  boost::system::error_code ec;
  boost::filesystem::remove_all(path_, ec);
}

}  // namespace testing_support
