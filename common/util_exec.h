// Utility execution: runs an external program to completion without the
// Pipe machinery, with its output captured into heap buffers or passed
// through, and reports a failing program with what it printed. Procedural:
// results are exit codes or -1, messages go through report_error, and
// resource failures (pipe, fork, memory) end the process with status 1.
#ifndef MXKEEP_COMMON_UTIL_EXEC_H
#define MXKEEP_COMMON_UTIL_EXEC_H

#include <sys/types.h>

// Entries of an argument vector built from a variable argument list,
// terminator included; further arguments are silently dropped.
constexpr int kUtilExecMaxArgs = 100;

// fork_execv_pipes - start path with argv, the given descriptors as its
// standard input, output and error (-1 means /dev/null) and every other
// descriptor closed. Returns the child's pid; the caller waits for it.
pid_t fork_execv_pipes(int in, int out, int err, const char* path, char* const argv[]);

// fork_execv_getouterr - run path with argv to completion, capturing its
// standard output and error into *out and *err (NUL-terminated heap
// buffers the caller frees, null when nothing was read). Returns the exit
// code, or -1 when the child was killed or could not be waited for.
int fork_execv_getouterr(char** out, char** err, const char* path, char* const argv[]);

// exec_capture_report - run path with argv capturing its output; unless
// quiet, a non-zero result is reported with the captured standard error.
// Returns as fork_execv_getouterr.
int exec_capture_report(const char* path, char* const argv[], int quiet);
constexpr int kReportFailure = 0;  // quiet off: a failure is reported with its output

// exec_capture_report_va - as exec_capture_report, not quiet; the
// arguments after path form the whole argument vector (argv[0] first),
// ended by a null pointer.
int exec_capture_report_va(const char* path, ...) __attribute__((sentinel));

// admin_util_exec - run the panel utility `name` from the product root's
// admin/bin with the given arguments (null-terminated; argv[0] is the
// utility's path) through exec_capture_report, not quiet. A name with a
// "/" is refused: -1, nothing started. -1 too when the path does not fit.
int admin_util_exec(const char* name, ...) __attribute__((sentinel));

// lib_util_exec - as admin_util_exec for a program of /usr/lib/zanth-9.0,
// without the check of the name.
int lib_util_exec(const char* name, ...) __attribute__((sentinel));

// util_exec - run path with argv reading `in` and writing `out`, passing
// each block of its standard error to the reporter as it arrives. Both
// descriptors must differ from the caller's own standard input and output,
// otherwise nothing runs and the result is -1. Returns the exit code, or -1
// when the child was stopped, killed or not waited for.
// Beware: when execv fails, the message goes to the parent and the forked
// child RETURNS execv's result (-1) into the caller's code instead of
// exiting; a caller that gets -1 must check whether it is that child.
int util_exec(int in, int out, const char* path, char* const argv[]);

// exec_silent - run path with the given argument vector (null-terminated
// variable arguments, argv[0] first) and all standard streams on
// /dev/null. Returns 1 when the child was killed by a signal, else 0,
// whatever its exit code.
int exec_silent(const char* path, ...) __attribute__((sentinel));

// popen_exec - run a shell command line, capturing its standard output
// into *out (heap, caller frees; null when it could not be kept). Returns
// the shell's exit code, or -1 when the command could not be started or
// closed.
int popen_exec(const char* command, char** out);

// popen_exec_report - popen_exec, reporting a failure or a non-zero code
// with the command's output. Returns as popen_exec.
int popen_exec_report(const char* command);

#endif  // MXKEEP_COMMON_UTIL_EXEC_H
