// The command line as a user meets it: the real binary, its two output
// streams and its exit status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/test_support.h"

namespace {

using testing_support::RunResult;
using testing_support::runTool;

const std::string kUsage =
    "Rename a Zanth-controlled mail domain\n"
    "Usage: mxkeep_domain_rename <old_domain_name> <new_domain_name>\n";

struct ArgumentCase {
  std::vector<std::string> args;
  std::string message;  // on stderr, and before the usage on stdout
  int status;
};

const ArgumentCase kArgumentCases[] = {
    {{"--help"}, "Not enough arguments", 1},
    {{"a.example"}, "Not enough arguments", 1},
    {{"--help", "x"}, "", 0},
    {{"-h", "x", "y", "z"}, "", 0},
    {{"a", "b", "c"}, "Invalid arguments", 1},
    {{"--", "--", "a", "b"}, "Invalid arguments", 1},
    {{"--", "a"}, "Invalid arguments", 1},
    {{"", ""}, "Empty old domain name", 1},
    {{"a.example", ""}, "Empty new domain name", 1},
    {{"--", "-a", "b"}, "Invalid argument '-a'", 1},
    {{"a.example", "-b"}, "Invalid argument '-b'", 1},
    {{"x", "--help"}, "Invalid argument '--help'", 1},
};

TEST(CommandLine, ArgumentChecksInOrder) {
  for (const ArgumentCase& c : kArgumentCases) {
    std::string shown;
    for (const std::string& a : c.args) shown += "[" + a + "]";
    SCOPED_TRACE(shown);
    RunResult r = runTool(c.args);
    EXPECT_EQ(c.status, r.exitCode());
    if (c.message.empty()) {
      EXPECT_EQ("", r.err);
      EXPECT_EQ(kUsage, r.out);
    } else {
      EXPECT_EQ(c.message + "\n", r.err);
      EXPECT_EQ(c.message + "\n" + kUsage, r.out);
    }
  }
}

TEST(CommandLine, IdnFailureIsOneFatalLine) {
  const std::string line = "Fatal error: zanth::idn::IdnaError(Invalid length)\n";
  RunResult r = runTool({"a..example", "b.example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(line, r.err);
  EXPECT_EQ(line, r.out);

  // The new name is converted too, and after a leading "--".
  r = runTool({"--", "a.example", "b..example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(line, r.err);
}

}  // namespace
