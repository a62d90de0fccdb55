// Runs a piece of the code under test in a forked child with its standard
// output and standard error captured separately, for procedural code that
// prints diagnostics or ends the process itself. Header-only test support.
#ifndef MXKEEP_TESTING_CHILD_OUTPUT_H
#define MXKEEP_TESTING_CHILD_OUTPUT_H

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>

#include "testing/test_support.h"

namespace testing_support {

// inChild - fork, run fn with stdout and stderr on pipes, exit with its
// result; returns the wait status and both streams. errno starts at 0.
inline RunResult inChild(const std::function<int()>& fn) {
  int out[2], err[2];
  if (pipe(out) != 0 || pipe(err) != 0) return RunResult{};
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    for (int fd : {out[0], out[1], err[0], err[1]}) close(fd);
    errno = 0;
    int code = fn();
    std::fflush(nullptr);
    _exit(code);
  }
  close(out[1]);
  close(err[1]);
  RunResult result;
  int fds[2] = {out[0], err[0]};
  char buf[8192];
  while (fds[0] >= 0 || fds[1] >= 0) {
    struct pollfd p[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
    if (poll(p, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i] < 0 || p[i].revents == 0) continue;
      ssize_t n = read(fds[i], buf, sizeof buf);
      if (n > 0) {
        (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(n));
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

}  // namespace testing_support

#endif  // MXKEEP_TESTING_CHILD_OUTPUT_H
