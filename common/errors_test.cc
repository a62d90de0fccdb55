// Error classes, traceback printing and the two diagnostic channels,
// observed from outside: what() texts, catchable types, and the bytes that
// reach standard error and standard output of a real child process.
#include "common/errors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "testing/child.h"

// A real call chain for the Traceback test: exported and never inlined,
// so the printer finds these frames by name.
namespace traceback_chain {
__attribute__((noinline)) void inner(std::ostream& out, int skip) {
  const zanth::Traceback taken(skip);
  const zanth::Traceback copy(taken);
  out << copy;
}
__attribute__((noinline)) void outer(std::ostream& out, int skip) {
  inner(out, skip);
  out << "end";  // keeps the call above from being a tail call
}
}  // namespace traceback_chain

namespace {

using namespace testing_support;

// The printed frames of a Traceback taken with `skip` through the chain,
// header first; "end" is what the outer caller writes after it.
std::vector<std::string> printedLines(int skip) {
  std::ostringstream out;
  traceback_chain::outer(out, skip);
  std::istringstream text(out.str());
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

TEST(Traceback, PrintsDemangledCallersAndSkipsTheInnermostFrames) {
  std::vector<std::vector<std::string>> printed;  // from one call site: the same frames
  for (int skip : {0, 3, 1000}) printed.push_back(printedLines(skip));
  const std::vector<std::string>& all = printed[0];
  ASSERT_EQ(zanth::Traceback::kMaxFrames + 2u, all.size());
  EXPECT_EQ("Traceback:", all.front());
  // The constructor, then its callers, on consecutive lines (a sanitizer
  // may put its own interceptor above them).
  const auto ctor = std::find_if(all.begin(), all.end(), [](const std::string& line) {
    return line.find("(zanth::Traceback::Traceback(int)+0x") != std::string::npos;
  });
  ASSERT_LT(ctor + 2, all.end());
  EXPECT_NE(std::string::npos, ctor[1].find("(traceback_chain::inner(std::ostream&, int)+0x"));
  EXPECT_NE(std::string::npos, ctor[2].find("(traceback_chain::outer(std::ostream&, int)+0x"));
  std::vector<std::string> expected(all.begin() + 3, all.end());
  expected.front() = "Traceback:";
  EXPECT_EQ(expected, printed[1]);
  EXPECT_EQ((std::vector<std::string>{"Traceback addresses:", "end"}), printed[2]);
}

TEST(SystemError, WhatJoinsMessageAndSystemTextAndTypedVariantsKeepTheirCodes) {
  EXPECT_STREQ("No such file or directory", zanth::SystemError("", ENOENT).what());
  EXPECT_THROW(zanth::throwSystemError("lock() failed", EAGAIN), zanth::ExSystemError<11>);
  for (int code : {3, 0}) {
    errno = EPERM;  // code 0 takes errno but is never dispatched to a typed variant
    try {
      zanth::throwSystemError("x", code);
    } catch (const zanth::SystemError& e) {
      EXPECT_TRUE(typeid(e) == typeid(zanth::SystemError)) << code;
      EXPECT_STREQ(code == 3 ? "x: No such process" : "x: Operation not permitted", e.what());
    }
  }
}

struct ReportCase {
  int errno_at_entry;
  int exit_status;  // -1: report_fatal, which must end with status 1
  std::string text;
  std::string shown;  // on both streams; "|returned" follows on stdout when it returns
};

const ReportCase kReportCases[] = {
    {0, 0, "has newline\n", "has newline\n"},
    {ENOENT, 0, std::string(5000, 'x'),
     std::string(5000, 'x') + "\n"},  // not cut, no room for the suffix
    {EACCES, 2, "fatal", "fatal\nSystem error 13: Permission denied\n"},
    {ENOENT, -1, "cannot go on", "cannot go on\nSystem error 2: No such file or directory\n"},
};

TEST(ReportError, PrintsBothCopiesAndExitsOnNonZeroStatus) {
  for (const ReportCase& c : kReportCases) {
    SCOPED_TRACE(c.text.substr(0, 20));
    RunResult r = runInChild([&c] {
      errno = c.errno_at_entry;
      if (c.exit_status < 0) report_fatal("%s", c.text.c_str());
      report_error(c.exit_status, 1, "%s", c.text.c_str());
      std::cout << "|returned";
      return 0;
    });
    const int status = c.exit_status < 0 ? 1 : c.exit_status;
    EXPECT_EQ(status, r.exitCode());
    EXPECT_EQ(c.shown, r.err);
    EXPECT_EQ(c.shown + (status == 0 ? "|returned" : ""), r.out);
  }
}

}  // namespace
