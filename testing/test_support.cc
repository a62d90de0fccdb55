// Test support: child processes with captured streams, files, scratch dirs.
#include "testing/test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "common/descriptors.h"

namespace testing_support {

namespace {

// Blocks SIGPIPE in the calling thread while a child's input is fed, and
// discards the one a child that stopped reading raised, so that the test
// process's own disposition is never changed.
class PipeSignalHeld {
 public:
  PipeSignalHeld() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &saved_);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
  }
  ~PipeSignalHeld() {
    const timespec now{0, 0};
    if (!wasPending_)
      while (sigtimedwait(&pipe_, nullptr, &now) == SIGPIPE) {
      }
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
  }
  PipeSignalHeld(const PipeSignalHeld&) = delete;
  PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

 private:
  sigset_t pipe_, saved_;
  bool wasPending_ = false;
};

}  // namespace

bool RunResult::exited() const { return WIFEXITED(status); }

int RunResult::exitCode() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

RunResult runProgram(const std::vector<std::string>& argv, const std::string& input) {
  int in[2], out[2], err[2];
  if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0)
    throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
    signal(SIGPIPE, SIG_DFL);  // whatever the test process has
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  const PipeSignalHeld held;
  return collectChild(pid, in[1], out[0], err[0], input);
}

RunResult collectChild(pid_t pid, int in_fd, int out_fd, int err_fd, const std::string& input) {
  RunResult result;
  size_t written = 0;
  if (input.empty()) {
    if (in_fd >= 0) close(in_fd);
    in_fd = -1;
  } else {
    zanth::setNonBlocking(in_fd);
  }
  char buf[65536];
  while (out_fd >= 0 || err_fd >= 0 || in_fd >= 0) {
    struct pollfd fds[3] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}, {in_fd, POLLOUT, 0}};
    if (poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      int& fd = i == 0 ? out_fd : err_fd;
      if (fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = read(fd, buf, sizeof buf);
      if (n > 0) {
        (i == 0 ? result.out : result.err).append(buf, n);
      } else if (n == 0 || errno != EINTR) {
        close(fd);
        fd = -1;
      }
    }
    if (in_fd >= 0 && fds[2].revents != 0) {
      ssize_t n = write(in_fd, input.data() + written, input.size() - written);
      if (n > 0) written += n;
      if ((n < 0 && errno != EAGAIN && errno != EINTR) || written == input.size()) {
        close(in_fd);
        in_fd = -1;
      }
    }
  }
  while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
  }
  return result;
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
