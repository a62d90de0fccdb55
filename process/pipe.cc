// Pipelines of child processes and the spawn routine beneath them. Every
// descriptor the parent creates is close-on-exec, so no child inherits
// another one's pipe ends (a stray write end would keep a reader from ever
// seeing end-of-file). The run loop serves all streams with one select()
// and learns about exits from the child catcher's self-pipe.
#include "process/pipe.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>

#include "common/errors.h"
#include "common/syscall.h"
#include "process/catcher.h"

namespace zanth {
namespace process {

namespace {

constexpr int kFallbackDescriptorLimit = 16;
constexpr size_t kControlBlock = 1024;
constexpr size_t kCodeRecordSize = 47;

const char kTypeTag[] = "ET: ";
const char kMessageTag[] = "EM: ";
const char kCodeTag[] = "EC: ";
constexpr size_t kTagLength = 4;

// Closes a descriptor the parent is done with; Linux releases it even when
// close fails with EINTR, so that one is not an error.
void closeChecked(int& fd) {
  if (fd < 0) return;
  int rc = ::close(fd);
  fd = -1;
  if (rc != 0 && errno != EINTR) throw SystemError("close");
}

void closeChecked(UniqueFd& owned) {
  int fd = owned.release();
  closeChecked(fd);
}

UniqueFd take(int& fd) {
  UniqueFd owned(fd);
  fd = -1;
  return owned;
}

void closeQuietly(int& fd) {
  if (fd < 0) return;
  int saved = errno;
  ::close(fd);
  errno = saved;
  fd = -1;
}

// Descriptor set for select() with room for 16384 descriptors; fd_set
// itself stops at 1024 and its macros abort beyond that.
class FdSet {
 public:
  static constexpr int kMaxFd = 16384;

  void add(int fd, int& top) {
    if (fd >= kMaxFd) throw SystemError("select", EBADF);
    bits_[fd / kBits] |= 1UL << (fd % kBits);
    top = std::max(top, fd);
  }
  bool has(int fd) const { return fd >= 0 && (bits_[fd / kBits] >> (fd % kBits)) & 1UL; }
  fd_set* raw() { return reinterpret_cast<fd_set*>(bits_); }

 private:
  static constexpr int kBits = static_cast<int>(8 * sizeof(unsigned long));
  unsigned long bits_[kMaxFd / kBits] = {};
};

// Ignores SIGPIPE while the parent feeds a child, so that a reader that
// quits early shows up as a "write" error instead of killing the process.
// Children are forked before this is in force and keep the default.
class SigpipeIgnore {
 public:
  SigpipeIgnore() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    if (retryEintr([&] { return ::sigaction(SIGPIPE, &ignore, &saved_); }) == -1)
      throw SystemError("sigaction");
  }
  ~SigpipeIgnore() {
    int saved = errno;
    ::sigaction(SIGPIPE, &saved_, nullptr);
    errno = saved;
  }
  SigpipeIgnore(const SigpipeIgnore&) = delete;
  SigpipeIgnore& operator=(const SigpipeIgnore&) = delete;

 private:
  struct sigaction saved_ {};
};

// Resolves one stream setting of a spawn. Returns the descriptor the child
// should get (-1: inherit); a descriptor made here goes to `owned`, and for
// a pipe the parent's end goes to `parentEnd`.
int prepareStream(int setting, bool childReads, const char* name, UniqueFd& owned,
                  int& parentEnd) {
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
      parentEnd = childReads ? fds[1] : fds[0];
      return owned.get();
    }
    default:
      if (setting >= 0) return setting;
      throw std::invalid_argument("invalid FD for " + stream);
  }
}

void writeAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    ssize_t n = retryEintr([&] { return ::write(fd, data, length); });
    if (n <= 0) return;  // the parent is gone; nothing left to tell
    data += n;
    length -= static_cast<size_t>(n);
  }
}

void writeRecord(int fd, const char* tag, const char* text) {
  writeAll(fd, tag, kTagLength);
  writeAll(fd, text, std::strlen(text) + 1);
}

// Closes every descriptor from 3 below the soft descriptor limit but keep.
void closeDescriptorsFrom3(int keep) {
  struct rlimit limit {};
  unsigned top = kFallbackDescriptorLimit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0)
    top = limit.rlim_cur > INT_MAX ? INT_MAX : static_cast<unsigned>(limit.rlim_cur);
  auto closeRange = [](unsigned first, unsigned end) {
    if (first >= end) return;
    if (::close_range(first, end - 1, 0) == 0) return;
    for (unsigned fd = first; fd < end; ++fd) ::close(static_cast<int>(fd));
  };
  if (keep >= 3 && static_cast<unsigned>(keep) < top) {
    closeRange(3, static_cast<unsigned>(keep));
    closeRange(static_cast<unsigned>(keep) + 1, top);
  } else {
    closeRange(3, top);
  }
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
  const int control = state.controlWrite;
  try {
    if (retryEintr([&] { return ::fcntl(control, F_SETFD, FD_CLOEXEC); }) == -1)
      throw SystemError("control pipe close-on-exec fcntl");
    for (int fd : {state.stdinFd, state.stdoutFd, state.stderrFd, state.controlRead})
      if (fd >= 0) ::close(fd);

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
    if (plan.closeDescriptors) closeDescriptorsFrom3(control);
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

struct Launched {
  pid_t pid;
  bool exited;
  int status;
};

// Stops and reaps, when a run ends by an exception, every child that has
// not exited yet: a failed step must not leave its program running on its
// own (a postmap still writing a map whose lock is about to be released).
// Killed outright: the run is over and nobody reads their output any more.
class ChildReaper {
 public:
  explicit ChildReaper(std::vector<Launched>& launched) : launched_(launched) {}
  ~ChildReaper() {
    if (finished_) return;
    const int saved = errno;
    for (Launched& child : launched_) {
      if (child.exited) continue;
      ::kill(child.pid, SIGKILL);
      // ECHILD: the catcher's handler has reaped it already.
      retryEintr([&] { return ::waitpid(child.pid, &child.status, 0); });
      child.exited = true;
    }
    errno = saved;
  }
  ChildReaper(const ChildReaper&) = delete;
  ChildReaper& operator=(const ChildReaper&) = delete;

  void finish() { finished_ = true; }

 private:
  std::vector<Launched>& launched_;
  bool finished_ = false;
};

struct CapturedError {
  UniqueFd fd;
  const BlockConsumer* consumer;
};

int atPipeLevel(int setting) { return setting == kStreamUnset ? kStreamInherit : setting; }

// Reads one block from fd and hands the bytes read on; closes fd at EOF.
// `buffer` keeps the block size for the whole run: growing a vector back
// after a short read would zero-fill it on every read. A full block goes
// out as it is, a short one is copied into `partial`, which assign() does
// not zero first.
void pump(UniqueFd& fd, std::vector<char>& buffer, std::vector<char>& partial,
          const BlockConsumer& consumer) {
  ssize_t n = retryEintr([&] { return ::read(fd.get(), buffer.data(), buffer.size()); });
  if (n < 0) throw SystemError("read");
  if (n == 0) {
    closeChecked(fd);
    return;
  }
  const size_t count = static_cast<size_t>(n);
  if (count == buffer.size()) {
    consumer(buffer);
    return;
  }
  partial.assign(buffer.data(), buffer.data() + count);
  consumer(partial);
}

}  // namespace

SpawnState::~SpawnState() {
  for (int* fd : {&stdinFd, &stdoutFd, &stderrFd, &controlRead, &controlWrite})
    closeQuietly(*fd);
}

ProcessSpec::ProcessSpec(const std::string& program, const std::string& a1,
                         const std::string& a2, const std::string& a3,
                         const std::string& a4, const std::string& a5,
                         const std::string& a6, const std::string& a7,
                         const std::string& a8, const std::string& a9)
    : program(program), arguments{program} {
  for (const std::string* a : {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9}) {
    if (a->empty()) break;
    arguments.push_back(*a);
  }
}

void PipeFlags::setInput(int setting, BlockProducer producer) {
  inputSetting_ = setting;
  producer_ = producer;
}

void PipeFlags::setOutput(int setting, BlockConsumer consumer) {
  outputSetting_ = setting;
  consumer_ = consumer;
}

void spawnProcess(SpawnState& state, const std::vector<std::string>& arguments,
                  const std::string& program, const char* workingDirectory,
                  char* const* environment, bool closeDescriptors,
                  bool searchPath, bool newSession,
                  const boost::function<void()>& preExec, int stdinSetting,
                  int stdoutSetting, int stderrSetting) {
  state.pid = -1;
  for (int* fd : {&state.stdinFd, &state.stdoutFd, &state.stderrFd, &state.controlRead,
                  &state.controlWrite})
    closeQuietly(*fd);

  ChildPlan plan{};
  UniqueFd owned[3];
  plan.chosen[0] = prepareStream(stdinSetting, true, "stdin", owned[0], state.stdinFd);
  plan.chosen[1] = prepareStream(stdoutSetting, false, "stdout", owned[1], state.stdoutFd);
  plan.chosen[2] = prepareStream(stderrSetting, false, "stderr", owned[2], state.stderrFd);
  for (int i = 0; i < 3; ++i) plan.owned[i] = owned[i].get() >= 0;

  int control[2];
  if (retryEintr([&] { return ::pipe2(control, O_CLOEXEC); }) == -1) throw SystemError("pipe");
  state.controlRead = control[0];
  state.controlWrite = control[1];

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
  closeChecked(state.controlWrite);
  for (UniqueFd& fd : owned) closeChecked(fd);
}

void checkChildReport(SpawnState& state) {
  std::string data;
  char block[kControlBlock];
  for (;;) {
    ssize_t n = retryEintr([&] { return ::read(state.controlRead, block, sizeof block); });
    if (n < 0) throw SystemError("control pipe read");
    if (n == 0) break;
    data.append(block, static_cast<size_t>(n));
  }
  closeQuietly(state.controlRead);
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
  writeAll(fd, record, std::strlen(record) + 1);
}

size_t writeSome(int fd, const char* buffer, size_t length) {
  int saved = errno;
  while (length != 0) {
    ssize_t n = retryEintr([&] { return ::write(fd, buffer, length); });
    if (n >= 0) {
      errno = saved;
      return static_cast<size_t>(n);
    }
    if (errno != EAGAIN) throw SystemError("write");
    // A full pipe may still take a smaller write: probe down to nothing.
    length /= 2;
  }
  errno = saved;
  return 0;
}

Pipe::Pipe() = default;

Pipe::~Pipe() = default;  // every descriptor of a run is released by run()

void Pipe::addProcess(const ProcessSpec& spec) {
  if (launched_) throw std::logic_error("adding processes to the launched pipe is prohibited");
  specs_.push_back(spec);
}

int Pipe::run() {
  if (specs_.empty()) throw std::logic_error("No processes to launch were assigned so far");
  if (launched_) throw std::logic_error("the pipe has been launched already");
  launched_ = true;

  // Declared before the mask guard, so that when an exception unwinds the
  // launch the mask goes back first and a pending SIGCHLD still reaches the
  // catcher, which then forces its own uninstall.
  ProcessSetCatcher catcher;
  SignalMaskGuard mask;
  std::vector<Launched> launched;
  UniqueFd input, output;
  std::vector<CapturedError> errors;
  ChildReaper reaper(launched);

  mask.block(SIGCHLD);
  catcher.install();
  {
    const sigset_t* callerMask = &mask.savedMask();
    UniqueFd previous;
    for (size_t i = 0; i < specs_.size(); ++i) {
      const ProcessSpec& spec = specs_[i];
      const bool last = i + 1 == specs_.size();
      const int in = i == 0 ? atPipeLevel(inputSetting_) : previous.get();
      const int out = last ? atPipeLevel(outputSetting_) : kStreamPipe;
      const int err = atPipeLevel(spec.stderrSetting);
      const std::string program =
          !spec.program.empty() || spec.arguments.empty() ? spec.program : spec.arguments[0];
      const bool searchPath = program.empty() || (program[0] != '.' && program[0] != '/');
      // The program gets the caller's mask, not the one with SIGCHLD blocked.
      boost::function<void()> hook = [&spec, callerMask] {
        if (spec.preExec) spec.preExec();
        if (::sigprocmask(SIG_SETMASK, callerMask, nullptr) == -1)
          throw SystemError("restore sigprocmask");
      };

      SpawnState state;
      spawnProcess(state, spec.arguments, program,
                   spec.workingDirectory.empty() ? nullptr : spec.workingDirectory.c_str(),
                   spec.environment, spec.closeDescriptors, searchPath, false, hook, in,
                   out, err);
      catcher.registerChild(state.pid);
      launched.push_back(Launched{state.pid, false, 0});
      checkChildReport(state);

      closeChecked(previous);
      if (i == 0) input = take(state.stdinFd);
      if (last)
        output = take(state.stdoutFd);
      else
        previous = take(state.stdoutFd);
      if (state.stderrFd >= 0)
        errors.push_back(CapturedError{take(state.stderrFd), &spec.stderrConsumer});
    }
  }
  mask.restore();

  std::optional<SigpipeIgnore> sigpipe;
  if (input.get() >= 0) {
    sigpipe.emplace();
    if (producer_) {
      int flags = retryEintr([&] { return ::fcntl(input.get(), F_GETFL); });
      if (flags == -1 ||
          retryEintr([&] { return ::fcntl(input.get(), F_SETFL, flags | O_NONBLOCK); }) == -1)
        throw SystemError("fcntl");
    }
  }

  std::vector<char> pending;  // input taken from the producer, not yet written
  size_t written = 0;
  bool exhausted = false;
  std::vector<char> buffer(readBlockSize()), partial;
  partial.reserve(readBlockSize());

  for (;;) {
    const bool running = std::any_of(launched.begin(), launched.end(),
                                     [](const Launched& p) { return !p.exited; });
    const bool open = input.get() >= 0 || output.get() >= 0 ||
                      std::any_of(errors.begin(), errors.end(),
                                  [](const CapturedError& e) { return e.fd.get() >= 0; });
    if (!running && !open) break;

    FdSet readable, writable;
    int top = -1;
    readable.add(catcher.readFd(), top);
    if (input.get() >= 0) writable.add(input.get(), top);
    if (output.get() >= 0) readable.add(output.get(), top);
    for (const CapturedError& e : errors)
      if (e.fd.get() >= 0) readable.add(e.fd.get(), top);
    // select() leaves the sets untouched when it fails, EINTR included.
    if (retryEintr([&] {
          return ::select(top + 1, readable.raw(), writable.raw(), nullptr, nullptr);
        }) == -1)
      throw SystemError("select");

    if (input.get() >= 0 && writable.has(input.get())) {
      if (written == pending.size() && !exhausted) {
        pending.clear();
        written = 0;
        exhausted = !producer_(pending);
      }
      if (written < pending.size())
        written += writeSome(input.get(), pending.data() + written, pending.size() - written);
      if (exhausted && written == pending.size()) closeChecked(input);
    }
    if (output.get() >= 0 && readable.has(output.get()))
      pump(output, buffer, partial, consumer_);
    for (CapturedError& e : errors)
      if (e.fd.get() >= 0 && readable.has(e.fd.get()))
        pump(e.fd, buffer, partial, *e.consumer);

    if (readable.has(catcher.readFd())) {
      catcher.drain();
      for (const auto& entry : catcher.children()) {
        const ChildRecord& record = entry.second;
        if (!record.exited || WIFSTOPPED(record.status)) continue;
        auto process = std::find_if(launched.begin(), launched.end(),
                                    [&](const Launched& p) { return p.pid == entry.first; });
        if (process == launched.end()) throw std::out_of_range("no such pid");
        process->exited = true;
        process->status = record.status;
      }
    }
  }

  reaper.finish();
  catcher.uninstall(false);
  return launched.back().status;
}

}  // namespace process
}  // namespace zanth
