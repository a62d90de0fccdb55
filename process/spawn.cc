// The spawn routine: builds the child's streams, forks, wires and execs in
// the child, and carries a failure before exec back to the parent as
// tagged records on a close-on-exec control pipe. Every descriptor the
// parent creates is close-on-exec, so no child inherits another one's pipe
// ends (a stray write end would keep a reader from ever seeing end-of-file).
#include "process/spawn.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "common/descriptors.h"
#include "common/errors.h"
#include "common/syscall.h"

namespace zanth {
namespace process {

namespace {

constexpr size_t kControlBlock = 1024;
constexpr size_t kCodeRecordSize = 47;

const char kTypeTag[] = "ET: ";
const char kMessageTag[] = "EM: ";
const char kCodeTag[] = "EC: ";
constexpr size_t kTagLength = 4;

// Resolves one stream setting of a spawn. Returns the descriptor the child
// should get (-1: inherit); a descriptor made here goes to `owned`, and for
// a pipe the parent's end goes to `parentEnd`.
int prepareStream(int setting, bool childReads, const char* name, UniqueFd& owned,
                  UniqueFd& parentEnd) {
  const std::string stream(name);
  switch (setting) {
    case kStreamInherit:
      return -1;
    case kStreamNull: {
      int flags = (childReads ? O_RDONLY : O_WRONLY) | O_CLOEXEC;
      int fd = retryEintr([&] { return ::open("/dev/null", flags); });
      if (fd == -1) throw SystemError(stream + " /dev/null open");
      owned.reset(fd);
      return fd;
    }
    case kStreamPipe: {
      int fds[2];
      if (retryEintr([&] { return ::pipe2(fds, O_CLOEXEC); }) == -1)
        throw SystemError(stream + " pipe");
      owned.reset(childReads ? fds[0] : fds[1]);
      parentEnd.reset(childReads ? fds[1] : fds[0]);
      return owned.get();
    }
    default:
      if (setting >= 0) return setting;
      throw std::invalid_argument("invalid FD for " + stream);
  }
}

// A failed write means the parent is gone; there is nobody left to tell.
void writeRecord(int fd, const char* tag, const char* text) {
  if (writeFully(fd, tag, kTagLength) == 0) writeFully(fd, text, std::strlen(text) + 1);
}

struct ChildPlan {
  char* const* argv;
  const char* program;
  const char* workingDirectory;
  char* const* environment;
  bool closeDescriptors;
  bool searchPath;
  bool newSession;
  const boost::function<void()>* preExec;
  int chosen[3];   // descriptor for 0, 1, 2; -1 inherits
  bool owned[3];   // chosen[i] was opened by the spawn, not given
};

// The forked child: wires its streams, execs, and on any failure reports
// the exception over the control pipe. Never returns. It ends with _exit:
// stdio buffers and static objects are the parent's copies, and flushing
// them here would repeat the parent's pending output into the child's.
[[noreturn]] void runChild(const SpawnState& state, const ChildPlan& plan) {
  static const char* const kDup2[3] = {"stdin dup2", "stdout dup2", "stderr dup2"};
  const int control = state.controlWrite.get();
  try {
    if (retryEintr([&] { return ::fcntl(control, F_SETFD, FD_CLOEXEC); }) == -1)
      throw SystemError("control pipe close-on-exec fcntl");
    for (const UniqueFd* fd :
         {&state.stdinFd, &state.stdoutFd, &state.stderrFd, &state.controlRead})
      if (fd->get() >= 0) ::close(fd->get());

    for (int target = 0; target < 3; ++target) {
      int fd = plan.chosen[target];
      if (fd < 0) continue;
      if (fd != target) {
        if (retryEintr([&] { return ::dup2(fd, target); }) == -1)
          throw SystemError(kDup2[target]);
        if (plan.owned[target]) ::close(fd);
      } else if (plan.owned[target]) {
        // Already in place, but made close-on-exec: keep it across exec.
        if (retryEintr([&] { return ::fcntl(fd, F_SETFD, 0); }) == -1)
          throw SystemError(kDup2[target]);
      }
    }
    if (plan.workingDirectory != nullptr &&
        retryEintr([&] { return ::chdir(plan.workingDirectory); }) == -1)
      throw SystemError("cwd chdir");
    if (plan.closeDescriptors) closeFrom(3, control);
    if (plan.newSession && retryEintr([] { return static_cast<int>(::setsid()); }) == -1)
      throw SystemError("setsid");
    if (*plan.preExec) (*plan.preExec)();

    if (plan.environment != nullptr) {
      retryEintr([&] { return ::execve(plan.program, plan.argv, plan.environment); });
      throw SystemError("execve");
    }
    if (plan.searchPath) {
      retryEintr([&] { return ::execvp(plan.program, plan.argv); });
      throw SystemError("execvp");
    }
    retryEintr([&] { return ::execv(plan.program, plan.argv); });
    throw SystemError("execv");
  } catch (const SystemError& e) {
    reportChildError(control, "SystemError", e.what(), e.code());
    ::_exit(kChildExitSystemError);
  } catch (const std::runtime_error& e) {
    reportChildError(control, "std::runtime_error", e.what());
    ::_exit(kChildExitException);
  } catch (const std::exception& e) {
    reportChildError(control, "std::exception", e.what());
    ::_exit(kChildExitException);
  } catch (...) {
    reportChildError(control, "std::runtime_error", "unknown error");
    ::_exit(kChildExitUnknown);
  }
}

// Parses the decimal rest of an "EC: " record; EINVAL when it is not one.
int parseCode(const std::string& text) {
  if (text.empty()) return EINVAL;
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || errno == ERANGE || value < INT_MIN || value > INT_MAX) return EINVAL;
  return static_cast<int>(value);
}

// The child sent SystemError::what(), "step: system text"; the step alone is
// the message to rebuild the same error from.
std::string stepOf(const std::string& what, int code) {
  const std::string suffix = std::string(": ") + std::strerror(code);
  if (what.size() >= suffix.size() &&
      what.compare(what.size() - suffix.size(), suffix.size(), suffix) == 0)
    return what.substr(0, what.size() - suffix.size());
  if (what == std::strerror(code)) return std::string();
  return what;
}

}  // namespace

void spawnProcess(SpawnState& state, const std::vector<std::string>& arguments,
                  const std::string& program, const char* workingDirectory,
                  char* const* environment, bool closeDescriptors,
                  bool searchPath, bool newSession,
                  const boost::function<void()>& preExec, int stdinSetting,
                  int stdoutSetting, int stderrSetting) {
  state = SpawnState();

  ChildPlan plan{};
  UniqueFd owned[3];
  plan.chosen[0] = prepareStream(stdinSetting, true, "stdin", owned[0], state.stdinFd);
  plan.chosen[1] = prepareStream(stdoutSetting, false, "stdout", owned[1], state.stdoutFd);
  plan.chosen[2] = prepareStream(stderrSetting, false, "stderr", owned[2], state.stderrFd);
  for (int i = 0; i < 3; ++i) plan.owned[i] = owned[i].get() >= 0;

  int control[2];
  if (retryEintr([&] { return ::pipe2(control, O_CLOEXEC); }) == -1) throw SystemError("pipe");
  state.controlRead.reset(control[0]);
  state.controlWrite.reset(control[1]);

  // Built before fork so the child only has to exec.
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  plan.argv = argv.data();
  plan.program = program.c_str();
  plan.workingDirectory = workingDirectory;
  plan.environment = environment;
  plan.closeDescriptors = closeDescriptors;
  plan.searchPath = searchPath;
  plan.newSession = newSession;
  plan.preExec = &preExec;

  pid_t pid = retryEintr([] { return ::fork(); });
  if (pid == -1) throw SystemError("pipe");
  if (pid == 0) runChild(state, plan);

  state.pid = pid;
  closeOrThrow(state.controlWrite, "close");
  for (UniqueFd& fd : owned) closeOrThrow(fd, "close");
}

void checkChildReport(SpawnState& state) {
  std::string data;
  char block[kControlBlock];
  for (;;) {
    ssize_t n = retryEintr([&] { return ::read(state.controlRead.get(), block, sizeof block); });
    if (n < 0) throw SystemError("control pipe read");
    if (n == 0) break;
    data.append(block, static_cast<size_t>(n));
  }
  state.controlRead.reset();
  raiseChildReport(data);
}

void raiseChildReport(const std::string& data) {
  std::string type, message;
  int code = 0;
  size_t start = 0;
  while (start < data.size()) {
    size_t end = data.find('\0', start);
    if (end == std::string::npos) end = data.size();
    const std::string record = data.substr(start, end - start);
    start = end + 1;
    if (record.empty()) continue;
    const std::string rest = record.size() > kTagLength ? record.substr(kTagLength) : "";
    if (record.compare(0, kTagLength, kTypeTag) == 0) {
      type = rest;
    } else if (record.compare(0, kTagLength, kMessageTag) == 0) {
      message = rest;
    } else if (record.compare(0, kTagLength, kCodeTag) == 0) {
      code = parseCode(rest);
    } else {
      std::clog << "child output: " << record << std::endl;
    }
  }

  if (type.empty()) return;
  if (message.empty()) message = "an error in child process";
  if (type == "SystemError") {
    if (code == 0) code = errno;
    throw SystemError(stepOf(message, code), code);
  }
  if (type == "std::runtime_error") throw std::runtime_error(message);
  if (type == "std::exception") throw std::exception();
  throw std::bad_exception();
}

void reportChildError(int fd, const char* typeName, const char* message) {
  if (fd < 0) return;
  writeRecord(fd, kTypeTag, typeName);
  writeRecord(fd, kMessageTag, message);
}

void reportChildError(int fd, const char* typeName, const char* message, int code) {
  if (fd < 0) return;
  reportChildError(fd, typeName, message);
  char record[kCodeRecordSize];
  std::snprintf(record, sizeof record, "EC: %d", code);
  writeFully(fd, record, std::strlen(record) + 1);
}

}  // namespace process
}  // namespace zanth
