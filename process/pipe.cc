// Pipelines of child processes: a run launches every child through the
// spawn routine, joined output to input, then serves all streams with one
// select() and learns about exits from the child catcher's self-pipe. A run
// that ends by an exception kills and reaps the children still running.
#include "process/pipe.h"

#include <signal.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/descriptors.h"
#include "common/errors.h"
#include "common/syscall.h"
#include "process/catcher.h"

namespace zanth {
namespace process {

namespace {

// Descriptor set for select() with room for 16384 descriptors; fd_set
// itself stops at 1024 and its macros abort beyond that.
class FdSet final {
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
class SigpipeIgnore final {
 public:
  SigpipeIgnore() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    if (retryEintr([&] { return ::sigaction(SIGPIPE, &ignore, &saved_); }) == -1)
      throw SystemError("sigaction");
  }
  ~SigpipeIgnore() {
    const ErrnoSaver keep;
    ::sigaction(SIGPIPE, &saved_, nullptr);
  }
  SigpipeIgnore(const SigpipeIgnore&) = delete;
  SigpipeIgnore& operator=(const SigpipeIgnore&) = delete;

 private:
  struct sigaction saved_ {};
};

struct Launched {
  pid_t pid;
  bool exited;
  int status;
};

// Stops and reaps, when a run ends by an exception, every child that has
// not exited yet: a failed step must not leave its program running on its
// own (a postmap still writing a map whose lock is about to be released).
// Killed outright: the run is over and nobody reads their output any more.
class ChildReaper final {
 public:
  explicit ChildReaper(std::vector<Launched>& launched) : launched_(launched) {}
  ~ChildReaper() {
    if (finished_) return;
    const ErrnoSaver keep;
    for (Launched& child : launched_) {
      if (child.exited) continue;
      ::kill(child.pid, SIGKILL);
      // ECHILD: the catcher's handler has reaped it already.
      retryEintr([&] { return ::waitpid(child.pid, &child.status, 0); });
      child.exited = true;
    }
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
    closeOrThrow(fd, "close");
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

// The children of one run and the parent's ends of their streams: the
// first one's input, the last one's output and every captured error.
struct Pipe::Streams {
  std::vector<Launched> launched;
  UniqueFd input, output;
  std::vector<CapturedError> errors;
};

int Pipe::run() {
  if (specs_.empty()) throw std::logic_error("No processes to launch were assigned so far");
  if (launched_) throw std::logic_error("the pipe has been launched already");
  launched_ = true;

  // Declared before the mask guard, so that when an exception unwinds the
  // launch the mask goes back first and a pending SIGCHLD still reaches the
  // catcher, which then forces its own uninstall.
  ProcessSetCatcher catcher;
  SignalMaskGuard mask;
  Streams streams;
  ChildReaper reaper(streams.launched);

  mask.block(SIGCHLD);
  catcher.install();
  launch(catcher, mask.savedMask(), streams);
  mask.restore();
  serve(catcher, streams);

  reaper.finish();
  catcher.uninstall(false);
  return streams.launched.back().status;
}

void Pipe::launch(ProcessSetCatcher& catcher, const sigset_t& callerMask,
                  Streams& streams) const {
  const sigset_t* restoredMask = &callerMask;
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
    boost::function<void()> hook = [&spec, restoredMask] {
      if (spec.preExec) spec.preExec();
      if (::sigprocmask(SIG_SETMASK, restoredMask, nullptr) == -1)
        throw SystemError("restore sigprocmask");
    };

    SpawnState state;
    spawnProcess(state, spec.arguments, program,
                 spec.workingDirectory.empty() ? nullptr : spec.workingDirectory.c_str(),
                 spec.environment, spec.closeDescriptors, searchPath, false, hook, in, out, err);
    catcher.registerChild(state.pid);
    streams.launched.push_back(Launched{state.pid, false, 0});
    checkChildReport(state);

    closeOrThrow(previous, "close");
    if (i == 0) streams.input = std::move(state.stdinFd);
    if (last)
      streams.output = std::move(state.stdoutFd);
    else
      previous = std::move(state.stdoutFd);
    if (state.stderrFd.get() >= 0)
      streams.errors.push_back(CapturedError{std::move(state.stderrFd), &spec.stderrConsumer});
  }
}

void Pipe::serve(ProcessSetCatcher& catcher, Streams& streams) {
  std::vector<Launched>& launched = streams.launched;
  UniqueFd& input = streams.input;
  UniqueFd& output = streams.output;
  std::vector<CapturedError>& errors = streams.errors;

  std::optional<SigpipeIgnore> sigpipe;
  if (input.get() >= 0) {
    sigpipe.emplace();
    if (producer_ && setNonBlocking(input.get()) != 0) throw SystemError("fcntl");
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
      if (exhausted && written == pending.size()) closeOrThrow(input, "close");
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
}


}  // namespace process
}  // namespace zanth
