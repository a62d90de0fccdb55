// Error classes, traceback printing, the process-wide error stream and the
// procedural reporter. Nothing here throws except the throwers themselves.
#include "common/errors.h"

#include <cxxabi.h>
#include <execinfo.h>
#include <libgen.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "common/syscall.h"
#include "common/syslog_trail.h"

namespace zanth {

SystemError::SystemError(const std::string& message)
    : std::runtime_error(message), code_(errno) {}

SystemError::SystemError(const std::string& message, int code)
    : std::runtime_error(message), code_(code) {}

SystemError::~SystemError() = default;

const char* SystemError::what() const noexcept {
  if (!cache_.empty()) return cache_.c_str();
  const char* message = std::runtime_error::what();
  try {
    if (*message != '\0') {
      cache_ = message;
      cache_ += ": ";
    }
    cache_ += std::strerror(code_);
    return cache_.c_str();
  } catch (...) {
    // Out of memory while building the text: the bare message will do.
    cache_.clear();
    return message;
  }
}

void throwSystemError(const std::string& message, int code) {
  switch (code) {
    case 1: throw ExSystemError<1>(message);
    case 2: throw ExSystemError<2>(message);
    case 4: throw ExSystemError<4>(message);
    case 10: throw ExSystemError<10>(message);
    case 11: throw ExSystemError<11>(message);
    default: throw SystemError(message, code != 0 ? code : errno);
  }
}

Traceback::Traceback(int skip) : symbols_(nullptr) {
  int n = backtrace(frames_, kMaxFrames);
  count_ = n < 0 ? 0 : n;
  skip_ = skip > count_ ? count_ : skip;
}

Traceback::Traceback(const Traceback& other)
    : count_(other.count_), skip_(other.skip_), symbols_(nullptr) {
  std::memcpy(frames_, other.frames_, sizeof frames_);
}

Traceback::~Traceback() { std::free(symbols_); }

std::ostream& operator<<(std::ostream& out, const Traceback& tb) {
  if (tb.symbols_ == nullptr && tb.count_ > 0)
    tb.symbols_ = backtrace_symbols(tb.frames_, tb.count_);

  if (tb.symbols_ == nullptr || tb.skip_ >= tb.count_) {
    out << "Traceback addresses:" << std::endl;
    for (int i = tb.skip_; i < tb.count_; ++i)
      out << '\t' << tb.frames_[i] << std::endl;
    return out;
  }

  out << "Traceback:" << std::endl;
  char* demangled = nullptr;
  size_t demangled_size = 0;
  for (int i = tb.skip_; i < tb.count_; ++i) {
    std::string line = tb.symbols_[i];
    std::string::size_type open = line.find('(');
    std::string::size_type plus =
        open == std::string::npos ? std::string::npos : line.find('+', open);
    if (plus != std::string::npos) {
      std::string mangled = line.substr(open + 1, plus - open - 1);
      int status = -1;
      char* result = abi::__cxa_demangle(mangled.c_str(), demangled,
                                         &demangled_size, &status);
      if (result != nullptr) demangled = result;
      if (status == 0 && result != nullptr)
        line = line.substr(0, open + 1) + result + line.substr(plus);
    }
    out << '\t' << line << std::endl;
  }
  std::free(demangled);
  return out;
}

UtilityErrorStreamBuf::~UtilityErrorStreamBuf() { sync(); }

int UtilityErrorStreamBuf::sync() {
  std::cerr.flush();
  std::cout << pending_;
  std::cout.flush();
  // The critical-restore message is the one that asks for a person.
  zanth::trail::diagnostic(pending_.compare(0, 9, "CRITICAL ") == 0 ? LOG_CRIT : LOG_ERR,
                           pending_);
  pending_.clear();
  return 0;
}

UtilityErrorStreamBuf::int_type UtilityErrorStreamBuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return c;
  char ch = traits_type::to_char_type(c);
  std::cerr.put(ch);
  pending_ += ch;
  return c;
}

UtilityErrorStream::UtilityErrorStream() : std::ostream(nullptr) { rdbuf(&buf_); }

UtilityErrorStream::~UtilityErrorStream() { rdbuf(nullptr); }

UtilityErrorStream errorStream;

namespace idn {

const char* idnaErrorText(int code) noexcept {
  switch (code) {
    case 0: return "Success";
    case 1: return "Stringprep error";
    case 2: return "Punycode error";
    case 3: return "Contains non-LDH characters";
    case 4: return "Contains minus";
    case 5: return "Invalid length";
    case 6: return "ACE prefix not found";
    case 7: return "Verify error";
    case 8: return "ACE prefix found";
    case 9: return "Iconv error";
    case 201: return "Cannot allocate buffer";
    default: return "Unknown error";
  }
}

IdnaError::~IdnaError() = default;

}  // namespace idn
}  // namespace zanth

const char* error_progname = nullptr;

namespace {

constexpr size_t kReportBufferSize = 4096;

void write_copy(FILE* stream, const char* text) {
  if (error_progname != nullptr) {
    // basename() may modify its argument, so it works on a copy.
    char copy[kReportBufferSize];
    std::snprintf(copy, sizeof copy, "%s", error_progname);
    const char* base = basename(copy);
    if (base != nullptr && *base != '\0') std::fprintf(stream, "%s: ", base);
  }
  std::fputs(text, stream);
  size_t len = std::strlen(text);
  if (len == 0 || text[len - 1] != '\n') std::fputc('\n', stream);
  std::fflush(stream);
}

}  // namespace

void print_error_message(const char* text, int exit_status, int /*flag*/) {
  write_copy(stderr, text);
  write_copy(stdout, text);
  zanth::trail::diagnostic(LOG_ERR, text);
  if (exit_status != 0) std::exit(exit_status);
}

void vreport_error(int exit_status, int flag, const char* format, va_list args) {
  // errno on entry decides the system-error suffix, and is what the caller
  // finds again afterwards.
  const zanth::ErrnoSaver entry;
  const int saved_errno = entry.value();
  size_t size = kReportBufferSize;
  char* buffer = static_cast<char*>(std::malloc(size));
  if (buffer == nullptr) {
    print_error_message("Can't allocate memory for error message", exit_status, flag);
    return;
  }

  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(buffer, size, format, args);
  if (length >= static_cast<int>(size)) {
    char* bigger = static_cast<char*>(std::realloc(buffer, length + 1));
    if (bigger != nullptr) {
      buffer = bigger;
      size = length + 1;
      std::vsnprintf(buffer, size, format, again);
    }
  }
  va_end(again);

  if (saved_errno != 0) {
    size_t used = std::strlen(buffer);
    size_t room = size - used;
    int n = std::snprintf(buffer + used, room, "\nSystem error %d: %s",
                          saved_errno, std::strerror(saved_errno));
    if (n < 0 || static_cast<size_t>(n) >= room) {
      // The suffix does not fit: the message goes out without it.
      char* bigger = static_cast<char*>(std::realloc(buffer, length + 2));
      if (bigger != nullptr) buffer = bigger;
      buffer[used] = '\0';
    }
  }

  print_error_message(buffer, exit_status, flag);
  std::free(buffer);
}

void report_fatal(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vreport_error(kReportAndEnd, kReportFlagSet, format, args);
  va_end(args);
  std::abort();  // not reached: a non-zero status exits
}

void report_error(int exit_status, int flag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vreport_error(exit_status, flag, format, args);
  va_end(args);
}

int report_condition(int cause, const char* format, ...) {
  va_list args;
  va_start(args, format);
  errno = 0;
  vreport_error(kReportAndGoOn, kReportFlag, format, args);
  va_end(args);
  errno = cause;
  return -1;
}
