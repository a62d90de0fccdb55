// Pipelines of child processes: runs one program or a chain joined output
// to input, feeds the first one's standard input from a producer, streams
// the last one's output and any captured standard error to consumers, and
// returns the last wait status. Each child is started by process/spawn.h,
// whose failures before exec surface here with the child's exception
// class. System failures throw SystemError.
#ifndef MXKEEP_PROCESS_PIPE_H
#define MXKEEP_PROCESS_PIPE_H

#include <signal.h>
#include <sys/types.h>

#include <boost/function.hpp>
#include <cstddef>
#include <string>
#include <vector>

#include "process/spawn.h"

namespace zanth {
namespace process {

class ProcessSetCatcher;

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
class Pipe final : public PipeFlags {
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
  struct Streams;  // the children of one run and the parent's ends of their streams

  // Spawns every process, wired output to input, with SIGCHLD blocked;
  // each child gets callerMask back just before exec.
  void launch(ProcessSetCatcher& catcher, const sigset_t& callerMask, Streams& streams) const;
  // Feeds the input, hands out output and errors, and records exits until
  // every child has ended and every stream is closed.
  void serve(ProcessSetCatcher& catcher, Streams& streams);

  std::vector<ProcessSpec> specs_;
  bool launched_ = false;
};

// Writes to a non-blocking descriptor; returns the count written, 0 when it
// is full. errno is preserved on success. Other failures throw SystemError.
size_t writeSome(int fd, const char* buffer, size_t length);

}  // namespace process
}  // namespace zanth

#endif  // MXKEEP_PROCESS_PIPE_H
