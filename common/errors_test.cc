// Error classes, traceback printing and the two diagnostic channels,
// observed from outside: what() texts, catchable types, and the bytes that
// reach standard error and standard output of a real child process.
#include "common/errors.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "testing/test_support.h"

namespace {

using testing_support::RunResult;

// Runs fn in a forked child with its stdout and stderr captured separately.
template <class F>
RunResult inChild(F fn) {
  int out[2], err[2];
  EXPECT_EQ(0, pipe(out));
  EXPECT_EQ(0, pipe(err));
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(err[1], 2);
    close(out[0]);
    close(err[0]);
    fn();
    fflush(nullptr);
    _exit(0);
  }
  close(out[1]);
  close(err[1]);
  RunResult r;
  char buf[4096];
  ssize_t n;
  while ((n = read(out[0], buf, sizeof buf)) > 0) r.out.append(buf, n);
  while ((n = read(err[0], buf, sizeof buf)) > 0) r.err.append(buf, n);
  close(out[0]);
  close(err[0]);
  waitpid(pid, &r.status, 0);
  return r;
}

TEST(SystemError, WhatJoinsMessageAndSystemText) {
  EXPECT_STREQ(std::strerror(ENOENT), zanth::SystemError("", ENOENT).what());
  EXPECT_EQ(std::string("open: ") + std::strerror(ENOENT),
            zanth::SystemError("open", ENOENT).what());
  errno = EACCES;
  zanth::SystemError fromErrno("write");
  EXPECT_EQ(EACCES, fromErrno.code());
  EXPECT_EQ(std::string("write: ") + std::strerror(EACCES), fromErrno.what());
}

TEST(SystemError, ThrowerPicksTypedVariants) {
  try {
    zanth::throwSystemError("lock() failed", EAGAIN);
    FAIL() << "nothing thrown";
  } catch (const zanth::ExSystemError<11>& e) {
    EXPECT_EQ(11, e.code());
  }
  try {
    zanth::throwSystemError("x", 3);
    FAIL() << "nothing thrown";
  } catch (const zanth::ExSystemError<2>&) {
    FAIL() << "code 3 caught as ENOENT";
  } catch (const zanth::SystemError& e) {
    EXPECT_EQ(std::string("x: ") + std::strerror(3), e.what());
  }
  // Code 0 takes errno but is never dispatched to a typed variant.
  errno = EPERM;
  try {
    zanth::throwSystemError("y", 0);
  } catch (const zanth::ExSystemError<1>&) {
    FAIL() << "code 0 dispatched by errno";
  } catch (const zanth::SystemError& e) {
    EXPECT_EQ(EPERM, e.code());
  }
  EXPECT_THROW(zanth::throwSystemError("y", 10), zanth::ExSystemError<10>);
  EXPECT_THROW(zanth::throwSystemError("y", 4), zanth::ExSystemError<4>);
}

TEST(IdnaError, TextsByCode) {
  EXPECT_STREQ("Punycode error", zanth::idn::IdnaError(2).what());
  EXPECT_STREQ("Cannot allocate buffer", zanth::idn::IdnaError(201).what());
  EXPECT_STREQ("Unknown error", zanth::idn::IdnaError(10).what());
  EXPECT_STREQ("Success", zanth::idn::IdnaError(0).what());
}

TEST(Traceback, SkippingEveryFramePrintsHeaderAlone) {
  zanth::Traceback tb(1000);
  std::ostringstream out;
  out << tb;
  EXPECT_EQ("Traceback addresses:\n", out.str());
}

TEST(Traceback, PrintsOneTabbedLinePerFrame) {
  zanth::Traceback tb(0);
  std::ostringstream out;
  out << tb;
  std::string text = out.str();
  ASSERT_EQ(0u, text.find("Traceback:\n"));
  std::istringstream lines(text.substr(std::strlen("Traceback:\n")));
  std::string line;
  int frames = 0;
  while (std::getline(lines, line)) {
    EXPECT_EQ('\t', line[0]) << line;
    ++frames;
  }
  EXPECT_GT(frames, 1);
  EXPECT_LE(frames, zanth::Traceback::kMaxFrames);
  // Printing twice gives the same text (the symbol cache is reused).
  std::ostringstream again;
  again << tb;
  EXPECT_EQ(text, again.str());
}

TEST(ErrorStream, StandardErrorAtOnceStandardOutputOnFlush) {
  RunResult r = inChild([] {
    zanth::errorStream << "abc";
    std::cerr << "|";  // marks that "abc" was already on stderr
    std::cout << "[before flush]";
    zanth::errorStream << std::endl;
    std::cout << "[after flush]";
  });
  EXPECT_EQ("abc|\n", r.err);
  EXPECT_EQ("[before flush]abc\n[after flush]", r.out);
}

TEST(ErrorStream, UnflushedTextReachesStandardOutputAtExit) {
  RunResult r = inChild([] {
    zanth::errorStream << "pending";
    std::exit(0);
  });
  EXPECT_EQ("pending", r.err);
  EXPECT_EQ("pending", r.out);
}

TEST(ReportError, PrintsBothCopiesAndReturns) {
  RunResult r = inChild([] {
    errno = 0;
    report_error(0, 0, "plain %d", 7);
    report_error(0, 0, "has newline\n");
    std::cout << "returned";
  });
  EXPECT_EQ("plain 7\nhas newline\n", r.err);
  EXPECT_EQ("plain 7\nhas newline\nreturned", r.out);
}

TEST(ReportError, AppendsSystemErrorSuffixFromErrnoAtEntry) {
  RunResult r = inChild([] {
    errno = EACCES;
    report_error(0, 0, "cannot open");
  });
  std::string expected = std::string("cannot open\nSystem error 13: ") + std::strerror(13) + "\n";
  EXPECT_EQ(expected, r.err);
  EXPECT_EQ(expected, r.out);
}

TEST(ReportError, LongMessageIsNotCutAndLosesOnlyTheSuffix) {
  std::string big(5000, 'x');
  RunResult r = inChild([&big] {
    errno = ENOENT;
    report_error(0, 0, "%s", big.c_str());
  });
  EXPECT_EQ(big + "\n", r.err);
  EXPECT_EQ(big + "\n", r.out);
}

TEST(ReportError, NonZeroStatusExitsAfterPrinting) {
  RunResult r = inChild([] {
    errno = 0;
    report_error(1, 1, "fatal");
    std::cout << "not reached";
  });
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("fatal\n", r.err);
  EXPECT_EQ("fatal\n", r.out);
}

TEST(ReportError, ProgramNamePrefixUsesBaseName) {
  RunResult r = inChild([] {
    errno = 0;
    error_progname = "/usr/sbin/tool";
    report_error(0, 0, "m");
  });
  EXPECT_EQ("tool: m\n", r.err);
  EXPECT_EQ("tool: m\n", r.out);
}

}  // namespace
