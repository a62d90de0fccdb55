// Forked test children with captured streams.
#include "testing/child.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace testing_support {

RunResult runInChild(const std::function<int()>& body) {
  int out[2], err[2];
  if (pipe(out) != 0 || pipe(err) != 0)
    throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (int fd : {out[0], out[1], err[0], err[1]}) close(fd);
    int status = body();
    std::fflush(nullptr);
    _exit(status);
  }
  close(out[1]);
  close(err[1]);

  RunResult result;
  struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  char buf[4096];
  while (fds[0].fd >= 0 || fds[1].fd >= 0) {
    if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, n);
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
      }
    }
  }
  while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
  }
  return result;
}

}  // namespace testing_support
