// Error classes and diagnostics shared by every module of the mail library:
// the exception tree of the class-based layer, the errno-dispatching thrower,
// call-stack snapshots, the process-wide error stream (standard error at
// once, standard output on flush) and the procedural reporter.
#ifndef MXKEEP_COMMON_ERRORS_H
#define MXKEEP_COMMON_ERRORS_H

#include <cstdarg>
#include <exception>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>

namespace zanth {

// A failed system call: the message names the failing step, the code is an
// errno value. what() is "message: strerror(code)", or the system text alone
// when the message is empty; it is computed once and never throws.
class SystemError : public std::runtime_error {
 public:
  explicit SystemError(const std::string& message);  // code from errno
  SystemError(const std::string& message, int code);
  ~SystemError() override;

  const char* what() const noexcept override;
  int code() const noexcept { return code_; }

 private:
  int code_;
  mutable std::string cache_;
};

// The system errors callers catch by kind: N is the errno value
// (1 EPERM, 2 ENOENT, 4 EINTR, 10 ECHILD, 11 EAGAIN).
template <int N>
class ExSystemError final : public SystemError {
 public:
  explicit ExSystemError(const std::string& message) : SystemError(message, N) {}
};

// Throws ExSystemError<code> for the typed codes, otherwise a SystemError
// with code, or with the current errno when code is 0.
[[noreturn]] void throwSystemError(const std::string& message, int code);

// True while any exception is propagating anywhere in the process. Undo
// guards decide by this process-wide test, not by their own scope.
inline bool exceptionInFlight() noexcept { return std::uncaught_exceptions() > 0; }

// A snapshot of the call stack, taken at construction; the first `skip`
// frames are left out when printed. Symbols are resolved on first print.
class Traceback final {
 public:
  static constexpr int kMaxFrames = 11;

  explicit Traceback(int skip = 0);
  Traceback(const Traceback& other);
  Traceback& operator=(const Traceback&) = delete;
  virtual ~Traceback();

  friend std::ostream& operator<<(std::ostream& out, const Traceback& tb);

 private:
  int count_;
  int skip_;
  void* frames_[kMaxFrames];
  mutable char** symbols_;
};

std::ostream& operator<<(std::ostream& out, const Traceback& tb);

// Stream buffer with no put area: each character goes to std::cerr at once
// and is kept; sync() writes what was kept to std::cout.
class UtilityErrorStreamBuf final : public std::streambuf {
 public:
  UtilityErrorStreamBuf() = default;
  ~UtilityErrorStreamBuf() override;

 protected:
  int sync() override;
  int_type overflow(int_type c) override;

 private:
  std::string pending_;
};

class UtilityErrorStream final : public std::ostream {
 public:
  UtilityErrorStream();
  ~UtilityErrorStream() override;

 private:
  UtilityErrorStreamBuf buf_;
};

// The one process-wide diagnostic stream of the class-based code.
extern UtilityErrorStream errorStream;

namespace idn {

// The text libidn's result code stands for ("Unknown error" for others).
const char* idnaErrorText(int code) noexcept;

// A failed IDNA conversion, carrying libidn's result code.
class IdnaError final : public std::exception {
 public:
  explicit IdnaError(int code) : code_(code) {}
  ~IdnaError() override;
  const char* what() const noexcept override { return idnaErrorText(code_); }
  int code() const noexcept { return code_; }

 private:
  int code_;
};

}  // namespace idn
}  // namespace zanth

// The reporting tiers of the procedural code, as report_error's exit_status:
// a warning prints and returns to the caller, a fatal prints and ends the
// process with status 1.
constexpr int kReportAndGoOn = 0;
constexpr int kReportAndEnd = 1;
// report_error's flag changes nothing; call sites pass one of these.
constexpr int kReportFlag = 0;
constexpr int kReportFlagSet = 1;

// Procedural reporter. Formats the message, appends "\nSystem error %d: %s"
// when errno was set on entry, prints it to standard error and standard
// output, and exits with exit_status when that is non-zero.
void report_error(int exit_status, int flag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void vreport_error(int exit_status, int flag, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// report_condition - report a failure that is no failed system call: as
// report_error does with kReportAndGoOn, but with errno cleared first, so
// that no stale system error is printed with it. errno is then left at
// cause for the caller (0 for none). Always -1.
int report_condition(int cause, const char* format, ...) __attribute__((format(printf, 2, 3)));

// report_fatal - report as report_error does, then end the process with
// status 1: for failures the procedural code cannot go on from.
[[noreturn]] void report_fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Output step of the reporter: optional "progname: " prefix, the text and a
// newline unless it ends in one, on standard error then standard output.
void print_error_message(const char* text, int exit_status, int flag);

// Program path whose base name prefixes procedural messages; null by default.
extern const char* error_progname;

#endif  // MXKEEP_COMMON_ERRORS_H
