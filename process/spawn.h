// The spawn routine: forks one child wired to the standard streams asked
// for, execs its program, and reports a failure between fork and exec to
// the parent over a close-on-exec control pipe, where it is thrown again
// with the child's exception class. System failures throw SystemError.
#ifndef MXKEEP_PROCESS_SPAWN_H
#define MXKEEP_PROCESS_SPAWN_H

#include <sys/types.h>

#include <boost/function.hpp>
#include <string>
#include <vector>

#include "common/syscall.h"

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

// Descriptors of one spawn: the parent's ends of the stream pipes that were
// asked for and the control pipe; an unused one holds nothing. Whatever is
// still held is closed on destruction.
struct SpawnState {
  pid_t pid = -1;
  UniqueFd stdinFd;   // write end feeding the child's standard input
  UniqueFd stdoutFd;  // read end of the child's standard output
  UniqueFd stderrFd;  // read end of the child's standard error
  UniqueFd controlRead;
  UniqueFd controlWrite;  // the child's end; closed in the parent after fork
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

}  // namespace process
}  // namespace zanth

#endif  // MXKEEP_PROCESS_SPAWN_H
