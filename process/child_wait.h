// Waiting for a child that may never return, such as a rename plugin: a
// termination signal ends the wait within a second, and the child with it
// (SIGTERM, then SIGKILL after a short grace), so the rename can fail and
// undo instead of hanging until it is killed itself.
#ifndef MXKEEP_PROCESS_CHILD_WAIT_H
#define MXKEEP_PROCESS_CHILD_WAIT_H

#include <sys/types.h>

namespace zanth {
namespace process {

// How long a child sent SIGTERM has to end before SIGKILL, in milliseconds.
constexpr long kChildGraceMs = 500;

// waitChildOrEnd - waitpid(pid, status, 0), but a termination signal held
// before or during the wait ends the child and reaps it (its status then
// shows the signal that ended it). Returns pid, or -1 with errno.
pid_t waitChildOrEnd(pid_t pid, int* status);

}  // namespace process
}  // namespace zanth

#endif  // MXKEEP_PROCESS_CHILD_WAIT_H
