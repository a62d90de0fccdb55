// Pipelines of child processes: runs one program or a chain joined output
// to input, feeds the first one's standard input from a producer, streams
// the last one's output and any captured standard error to consumers, and
// returns the last wait status. A failure between fork and exec is sent
// back over a close-on-exec control pipe and re-raised in the parent with
// the child's exception class. System failures throw SystemError.
#ifndef MXKEEP_PROCESS_PIPE_H
#define MXKEEP_PROCESS_PIPE_H

#include <sys/types.h>

#include <boost/function.hpp>
#include <cstddef>
#include <string>
#include <vector>

namespace zanth {
namespace process {

// Stream settings of a child's standard input, output or error. Any value
// of 0 or more is an open descriptor to use as that stream.
constexpr int kStreamUnset = -1;    // Pipe level only: same as kStreamInherit
constexpr int kStreamInherit = -2;  // keep the parent's descriptor
constexpr int kStreamNull = -3;     // /dev/null
constexpr int kStreamPipe = -4;     // a new pipe to the parent

// Child exit statuses that carry a failure before exec.
constexpr int kChildExitUnknown = 65;
constexpr int kChildExitException = 66;
constexpr int kChildExitSystemError = 67;

// Gets each block read from a child.
using BlockConsumer = boost::function<void(const std::vector<char>&)>;
// Appends the next block of input; returns false once the input is exhausted.
using BlockProducer = boost::function<bool(std::vector<char>&)>;

// One program of a pipeline.
struct ProcessSpec {
  ProcessSpec() = default;
  // Program path plus up to nine arguments; the first empty argument ends
  // the list. The argument vector is {program, a1, a2, ...}.
  explicit ProcessSpec(const std::string& program, const std::string& a1 = {},
                       const std::string& a2 = {}, const std::string& a3 = {},
                       const std::string& a4 = {}, const std::string& a5 = {},
                       const std::string& a6 = {}, const std::string& a7 = {},
                       const std::string& a8 = {}, const std::string& a9 = {});

  std::string workingDirectory;       // empty: no chdir
  char** environment = nullptr;       // null-terminated; null: inherit
  bool closeDescriptors = false;      // close everything from 3 up before exec
  boost::function<void()> preExec;    // run in the child just before exec
  int stderrSetting = kStreamUnset;   // kStreamUnset means kStreamInherit
  BlockConsumer stderrConsumer;       // used when stderrSetting == kStreamPipe
  std::string program;                // empty: arguments[0]
  std::vector<std::string> arguments;
};

// Settings shared by every child a Pipe starts.
class CommonFlags {
 public:
  static constexpr size_t kDefaultReadBlock = 64 * 1024;

  // Largest block handed to an output or error consumer at once.
  size_t readBlockSize() const { return readBlockSize_; }
  void setReadBlockSize(size_t size) { readBlockSize_ = size == 0 ? 1 : size; }

 private:
  size_t readBlockSize_ = kDefaultReadBlock;
};

// Adds the two ends of the pipeline: standard input of the first process
// and standard output of the last.
class PipeFlags : public CommonFlags {
 public:
  // The producer is used when setting is kStreamPipe.
  void setInput(int setting, BlockProducer producer = BlockProducer());
  // The consumer is used when setting is kStreamPipe.
  void setOutput(int setting, BlockConsumer consumer = BlockConsumer());

  int inputSetting() const { return inputSetting_; }
  int outputSetting() const { return outputSetting_; }

 protected:
  int inputSetting_ = kStreamUnset;
  BlockProducer producer_;
  int outputSetting_ = kStreamUnset;
  BlockConsumer consumer_;
};

// A pipeline, run once:
//
//   Pipe pipe;
//   ProcessSpec dump("/usr/sbin/postmap", "-s", "hash:/etc/map");
//   dump.stderrSetting = kStreamPipe;
//   dump.stderrConsumer = collectErrors;
//   pipe.addProcess(dump);
//   pipe.setOutput(kStreamPipe, filterLines);
//   int status = pipe.run();
//
// Every process but the last writes into a new pipe to the next one; the
// last one's output follows setOutput(). Output is streamed in blocks of
// readBlockSize(), so memory use does not grow with the data.
class Pipe : public PipeFlags {
 public:
  Pipe();
  virtual ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  // Appends a process; std::logic_error once the pipe was launched.
  void addProcess(const ProcessSpec& spec);
  // Starts every process, serves their streams until all have ended and
  // returns the raw wait status of the last one. Only once per Pipe.
  int run();

 private:
  std::vector<ProcessSpec> specs_;
  bool launched_ = false;
};

// Descriptors of one spawn. Holds the parent's ends of the stream pipes that
// were asked for and the control pipe; -1 marks a closed or unused one.
// Whatever is still held is closed on destruction.
struct SpawnState {
  SpawnState() = default;
  ~SpawnState();
  SpawnState(const SpawnState&) = delete;
  SpawnState& operator=(const SpawnState&) = delete;

  pid_t pid = -1;
  int stdinFd = -1;   // write end feeding the child's standard input
  int stdoutFd = -1;  // read end of the child's standard output
  int stderrFd = -1;  // read end of the child's standard error
  int controlRead = -1;
  int controlWrite = -1;  // the child's end; closed in the parent after fork
};

// Forks one child wired as the settings say and execs the program in it
// (execve with an environment, else execvp when searchPath, else execv).
// Returns in the parent only; call checkChildReport next.
void spawnProcess(SpawnState& state, const std::vector<std::string>& arguments,
                  const std::string& program, const char* workingDirectory,
                  char* const* environment, bool closeDescriptors,
                  bool searchPath, bool newSession,
                  const boost::function<void()>& preExec, int stdinSetting,
                  int stdoutSetting, int stderrSetting);

// Reads the control pipe to its end and closes it; when the child reported
// a failure, throws it again here (SystemError, std::runtime_error,
// std::exception, or std::bad_exception for an unknown kind).
void checkChildReport(SpawnState& state);

// The parsing half of checkChildReport: throws the failure that the
// control-pipe bytes describe, or returns when they describe none.
void raiseChildReport(const std::string& data);

// Child side of the control pipe: an "ET: " record with the type name and an
// "EM: " record with the message; the second form adds an "EC: " record.
// Does nothing when fd is negative.
void reportChildError(int fd, const char* typeName, const char* message);
void reportChildError(int fd, const char* typeName, const char* message, int code);

// Writes to a non-blocking descriptor; returns the count written, 0 when it
// is full. errno is preserved on success. Other failures throw SystemError.
size_t writeSome(int fd, const char* buffer, size_t length);

}  // namespace process
}  // namespace zanth

#endif  // MXKEEP_PROCESS_PIPE_H
