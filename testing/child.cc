// Forked test children with captured streams.
#include "testing/child.h"

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

  return collectChild(pid, -1, out[0], err[0]);
}

}  // namespace testing_support
