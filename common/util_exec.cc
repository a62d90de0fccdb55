// Utility execution: fork/exec of external programs with captured or
// redirected standard streams, for code that does not use the Pipe layer.
// Failing programs are reported through report_error with status 0; pipe,
// fork and memory failures end the process through it with status 1.
#include "common/util_exec.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/descriptors.h"
#include "common/errors.h"
#include "common/orb_conf.h"
#include "common/fixed_paths.h"
#include "common/syscall.h"

namespace {

constexpr size_t kCaptureStep = 4096;
constexpr int kQuietPollMs = 1000;   // silence after which the child is polled
constexpr size_t kErrorBlock = 4095;
constexpr const char* kLibUtilDir = zanth::paths::kLibUtilDir;
constexpr char kDevNull[] = "/dev/null";

// The exit status a child uses when it cannot exec (seen as 255). The child
// leaves with _exit: it is a copy of the caller, and exit() would flush the
// caller's stdio buffers a second time and run its atexit handlers.
constexpr int kChildFailed = -1;

// fill_argv - copy the null-terminated variable arguments into argv from
// index `first`, stopping silently when the vector is full.
void fill_argv(char* argv[], int first, va_list args) {
  int i = first;
  for (; i < kUtilExecMaxArgs - 1; ++i) {
    char* arg = va_arg(args, char*);
    if (arg == nullptr) break;
    argv[i] = arg;
  }
  argv[i] = nullptr;
}

// place_fd - in the child, make `fd` descriptor `target` (-1: /dev/null).
// The source is closed once copied unless it is a standard descriptor or
// still needed for a later target.
bool place_fd(int fd, int target, bool needed_later) {
  if (fd == target) return true;
  bool opened = false;
  if (fd == -1) {
    fd = zanth::retryEintr([] { return ::open(kDevNull, O_RDWR); });
    if (fd < 0) return false;
    if (fd == target) return true;
    opened = true;
  }
  if (zanth::retryEintr([&] { return ::dup2(fd, target); }) < 0) return false;
  if (opened || (fd > STDERR_FILENO && !needed_later)) ::close(fd);
  return true;
}

// exit_code - the exit code of a wait status, -1 unless it is a normal exit.
int exit_code(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

// A capture buffer that grows in kCaptureStep steps and always keeps room
// for the terminating NUL.
struct Capture {
  char* data = nullptr;
  size_t used = 0;
  size_t size = 0;
};

// drain_step - one read from a ready pipe into `cap`; closes `fd` at end of
// file or on a read error.
void drain_step(zanth::UniqueFd& fd, Capture& cap) {
  if (cap.size - cap.used < 2) {
    char* bigger = static_cast<char*>(std::realloc(cap.data, cap.size + kCaptureStep));
    if (bigger == nullptr) report_fatal("Cannot allocate memory");
    cap.data = bigger;
    cap.size += kCaptureStep;
  }
  ssize_t n = zanth::retryEintr(
      [&] { return ::read(fd.get(), cap.data + cap.used, cap.size - cap.used - 1); });
  if (n > 0) {
    cap.used += static_cast<size_t>(n);
  } else if (n == 0) {
    fd.reset();
  } else if (errno == EAGAIN) {
    errno = 0;
  } else {
    std::fprintf(stderr, "fork_exec*: read(pipe) failed: %s\n", std::strerror(errno));
    fd.reset();
    errno = 0;
  }
}

// finish - NUL-terminate a capture and hand it over; null when nothing
// was read.
char* finish(Capture& cap) {
  if (cap.used == 0) {
    std::free(cap.data);
    return nullptr;
  }
  cap.data[cap.used] = '\0';
  return cap.data;
}

// run_utility - run the program at `path`, argv[0] = path and the rest
// from `args`, through exec_capture_report, not quiet.
int run_utility(char* path, va_list args) {
  char* argv[kUtilExecMaxArgs];
  argv[0] = path;
  fill_argv(argv, 1, args);
  return exec_capture_report(path, argv, kReportFailure);
}

}  // namespace

pid_t fork_execv_pipes(int in, int out, int err, const char* path, char* const argv[]) {
  pid_t pid = ::fork();
  if (pid < 0) report_fatal("fork_execv_pipes: fork() failed");
  if (pid != 0) return pid;

  const int wanted[3] = {in, out, err};
  for (int target = 0; target < 3; ++target) {
    bool needed_later = false;
    for (int later = target + 1; later < 3; ++later)
      needed_later = needed_later || wanted[later] == wanted[target];
    if (!place_fd(wanted[target], target, needed_later)) {
      std::fprintf(stderr, "fork_execv: dup() failed: %s\n", std::strerror(errno));
      _exit(kChildFailed);
    }
  }
  zanth::closeFrom(STDERR_FILENO + 1);
  errno = 0;
  ::execv(path, argv);
  std::fprintf(stderr, "fork_execv: execv(\"%s\") failed: %s\n", path, std::strerror(errno));
  _exit(kChildFailed);
}

int fork_execv_getouterr(char** out, char** err, const char* path, char* const argv[]) {
  *out = nullptr;
  *err = nullptr;
  int out_pipe[2];
  int err_pipe[2];
  if (::pipe(out_pipe) != 0 || ::pipe(err_pipe) != 0)
    report_fatal("fork_execv_getouterr: pipe() failed");
  for (int fd : {out_pipe[0], err_pipe[0]}) {
    if (zanth::setNonBlocking(fd) != 0)
      report_fatal("fork_execv_getouterr: fcntl(O_NONBLOCK) failed");
  }

  zanth::UniqueFd fds[2] = {zanth::UniqueFd(out_pipe[0]), zanth::UniqueFd(err_pipe[0])};
  pid_t pid;
  {
    // The child's ends: gone from here once it has them.
    const zanth::UniqueFd out_write(out_pipe[1]);
    const zanth::UniqueFd err_write(err_pipe[1]);
    pid = fork_execv_pipes(STDIN_FILENO, out_write.get(), err_write.get(), path, argv);
  }
  // A failing program is no system error: whatever errno held before must
  // not be appended to the report of its output.
  errno = 0;

  // Both pipes are read as data arrives, so a child filling one of them
  // cannot block while the other is waited on. When the child has gone
  // quiet for a while it is polled, so that a descendant still holding the
  // pipes open cannot keep the caller waiting after the child has ended.
  Capture caps[2];
  bool reaped = false;
  int result = -1;
  while (fds[0].get() >= 0 || fds[1].get() >= 0) {
    struct pollfd ready[2] = {{fds[0].get(), POLLIN, 0}, {fds[1].get(), POLLIN, 0}};
    int n = ::poll(ready, 2, kQuietPollMs);
    if (n < 0) {
      if (errno == EINTR) {
        errno = 0;
        continue;
      }
      std::fprintf(stderr, "fork_exec*: poll() failed: %s\n", std::strerror(errno));
      errno = 0;
      break;
    }
    if (n == 0) {
      int status = 0;
      pid_t gone = zanth::retryEintr([&] { return ::waitpid(pid, &status, WNOHANG); });
      if (gone == 0) continue;
      reaped = true;
      result = gone == pid ? exit_code(status) : -1;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].get() >= 0 && ready[i].revents != 0) drain_step(fds[i], caps[i]);
    }
  }
  for (zanth::UniqueFd& fd : fds) fd.reset();
  if (!reaped) {
    int status = 0;
    pid_t gone = zanth::retryEintr([&] { return ::waitpid(pid, &status, WUNTRACED); });
    result = gone == pid ? exit_code(status) : -1;
  }
  *out = finish(caps[0]);
  *err = finish(caps[1]);
  return result;
}

int exec_capture_report(const char* path, char* const argv[], int quiet) {
  char* out = nullptr;
  char* err = nullptr;
  int result = fork_execv_getouterr(&out, &err, path, argv);
  if (result != 0 && quiet == 0) {
    if (out != nullptr) {
      // Printed as text: a program's output is never a format.
      std::fputs(out, stderr);
    }
    if (err != nullptr && *err != '\0')
      report_error(kReportAndGoOn, kReportFlag, "%s execution failed:\n%s", path, err);
    else
      report_error(kReportAndGoOn, kReportFlag, "%s execution failed (no output)", path);
  }
  std::free(out);
  std::free(err);
  return result;
}

// utility_path - "<root><sub>/<name>" into a kPathMax buffer; false, and
// reported, when it does not fit.
static bool utility_path(char* path, const char* root, const char* sub, const char* name) {
  if (zanth::path_format(path, zanth::kPathMax, "%s%s/%s", root, sub, name)) return true;
  report_error(kReportAndGoOn, kReportFlag, "Utility '%s' path is too long", name);
  return false;
}

int exec_capture_report_va(const char* path, ...) {
  char* argv[kUtilExecMaxArgs];
  va_list args;
  va_start(args, path);
  fill_argv(argv, 0, args);
  va_end(args);
  return exec_capture_report(path, argv, kReportFailure);
}

int admin_util_exec(const char* name, ...) {
  errno = 0;  // a refused name is no system error
  if (std::strchr(name, '/') != nullptr) {
    report_error(kReportAndGoOn, kReportFlag,
                 "Utility name '%s' is invalid. Use only utility name without path.", name);
    return -1;
  }
  char path[zanth::kPathMax];
  if (!utility_path(path, orb_conf_get_default(PRODUCT_ROOT_D), "/admin/bin", name)) return -1;
  va_list args;
  va_start(args, name);
  int result = run_utility(path, args);
  va_end(args);
  return result;
}

int lib_util_exec(const char* name, ...) {
  errno = 0;
  char path[zanth::kPathMax];
  if (!utility_path(path, kLibUtilDir, "", name)) return -1;
  va_list args;
  va_start(args, name);
  int result = run_utility(path, args);
  va_end(args);
  return result;
}

int util_exec(int in, int out, const char* path, char* const argv[]) {
  // The child closes its own standard streams before putting the given
  // descriptors in place, so it cannot inherit the caller's.
  if (in == fileno(stdin) || out == fileno(stdout)) {
    report_error(kReportAndGoOn, kReportFlag,
                 "util_exec: standard input and output of '%s' must be redirected", path);
    return -1;
  }
  int err_pipe[2];
  if (::pipe(err_pipe) != 0)
    report_fatal("Error occured during pipe():\n%s", std::strerror(errno));
  zanth::UniqueFd err_read(err_pipe[0]);
  zanth::UniqueFd err_write(err_pipe[1]);
  // The child may come back into the caller's code (below): nothing the
  // caller has buffered may be written twice.
  std::fflush(nullptr);
  pid_t pid = ::fork();
  if (pid < 0) report_fatal("Error occured during fork():\n%s", std::strerror(errno));

  if (pid == 0) {
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    err_read.reset();
    ::dup2(in, STDIN_FILENO);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err_write.get(), STDERR_FILENO);
    int result = ::execv(path, argv);
    int cause = errno;
    // One write, so that the parent reports the message as one block.
    std::fprintf(stderr, "Error occured during execv():\n%s%s", std::strerror(cause),
                 cause == EFAULT ? ", possible reason - NULL parameter is absent in "
                                   "util_exec(path, arg1, arg2, NULL) call.\n"
                                 : ".\n");
    std::fflush(stderr);
    return result;  // err_write is closed on the way out
  }

  err_write.reset();
  errno = 0;
  char block[kErrorBlock + 1];
  for (;;) {
    ssize_t n = zanth::retryEintr([&] { return ::read(err_read.get(), block, kErrorBlock); });
    if (n <= 0) break;
    block[n] = '\0';
    report_error(kReportAndGoOn, kReportFlag, "%s", block);
    std::fflush(stderr);
  }
  err_read.reset();
  errno = 0;

  int status = 0;
  if (zanth::retryEintr([&] { return ::waitpid(pid, &status, WUNTRACED); }) < 0) {
    report_error(kReportAndGoOn, kReportFlag,
                 "Error occured during waiting the child process with pid: %d: %s\n",
                 static_cast<int>(pid), std::strerror(errno));
    return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSTOPPED(status)) {
    report_error(kReportAndGoOn, kReportFlag,
                 "The child process with pid %d stopped by signal %i\n", static_cast<int>(pid),
                 WSTOPSIG(status));
  } else {
    report_error(kReportAndGoOn, kReportFlag, "The child process with pid %d killed by signal %i\n",
                 static_cast<int>(pid), WTERMSIG(status));
  }
  return -1;
}

int exec_silent(const char* path, ...) {
  char* argv[kUtilExecMaxArgs];
  va_list args;
  va_start(args, path);
  fill_argv(argv, 0, args);
  va_end(args);

  pid_t pid = ::fork();
  if (pid < 0) report_fatal("exec_silent: fork() failed");
  if (pid == 0) {
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    // The lowest free descriptors: 0, 1 and 2 in turn.
    for (int i = 0; i < 3; ++i) ::open(kDevNull, O_RDWR);
    _exit(::execv(path, argv));
  }
  int status = 0;
  pid_t gone = zanth::retryEintr([&] { return ::waitpid(pid, &status, 0); });
  return gone == pid && WIFSIGNALED(status) ? 1 : 0;
}

int popen_exec(const char* command, char** out) {
  *out = nullptr;
  zanth::UniquePipeStream stream(::popen(command, "re"));
  if (!stream) {
    std::fputs("popen_exec: failed to execute command: fork or pipe calls failed, or cannon allocate "
               "memory\n",
               stderr);
    return -1;
  }
  size_t size = kCaptureStep + 1;
  zanth::UniqueCString buffer(static_cast<char*>(std::malloc(size)));
  if (!buffer) {
    std::fputs("popen_exec: failed to allocate memory\n", stderr);
    return -1;  // the owner waits for the command
  }
  size_t used = 0;
  int c;
  while ((c = std::fgetc(stream.get())) != EOF) {
    if (used == size - 1) {
      char* bigger = static_cast<char*>(std::realloc(buffer.get(), size + kCaptureStep));
      if (bigger == nullptr) {
        std::fputs("popen_exec: warning: failed to allocate memory for command output buffer\n",
                   stderr);
        buffer.reset();
        break;
      }
      (void)buffer.release();  // moved by realloc
      buffer.reset(bigger);
      size += kCaptureStep;
    }
    buffer.get()[used++] = static_cast<char>(c);
  }
  if (buffer) buffer.get()[used] = '\0';
  // The exit status is the result: pclose is called here, not by the owner.
  int status = ::pclose(stream.release());
  *out = buffer.release();
  return status == -1 ? -1 : (status >> 8) & 0xff;
}

int popen_exec_report(const char* command) {
  char* out = nullptr;
  int code = popen_exec(command, &out);
  if (code == -1) {
    report_error(kReportAndGoOn, kReportFlag, "popen_exec: failed to execute command: %s\n",
                 std::strerror(errno));
  } else if (code != 0) {
    errno = 0;  // a failing command is not a system error
    report_error(kReportAndGoOn, kReportFlag, "popen_exec: command failed code: %d , %s\n", code,
                 out != nullptr && *out != '\0' ? out : "error: none");
  }
  std::free(out);
  return code;
}
