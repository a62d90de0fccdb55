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
    {{"--help"}, "Not enough arguments\n", 1},
    {{"a.example"}, "Not enough arguments\n", 1},
    {{"--help", "x"}, "", 0},
    {{"-h", "x", "y", "z"}, "", 0},
    {{"a", "b", "c"}, "Invalid arguments\n", 1},
    {{"--", "--", "a", "b"}, "Invalid arguments\n", 1},
    {{"--", "a"}, "Invalid arguments\n", 1},
    {{"", ""}, "Empty old domain name\n", 1},
    {{"a.example", ""}, "Empty new domain name\n", 1},
    {{"--", "-a", "b"}, "Invalid argument '-a'\n", 1},
    {{"a.example", "-b"}, "Invalid argument '-b'\n", 1},
    {{"x", "--help"}, "Invalid argument '--help'\n", 1},
};

TEST(CommandLine, ArgumentChecksInOrder) {
  for (const ArgumentCase& c : kArgumentCases) {
    std::string shown;
    for (const std::string& a : c.args) shown += "[" + a + "]";
    SCOPED_TRACE(shown);
    const RunResult r = runTool(c.args);
    EXPECT_EQ(c.status, r.exitCode());
    EXPECT_EQ(c.message, r.err);
    EXPECT_EQ(c.message + kUsage, r.out);
  }
}

TEST(CommandLine, IdnFailureIsOneFatalLine) {
  const std::string line = "Fatal error: zanth::idn::IdnaError(Invalid length)\n";
  const RunResult r = runTool({"a..example", "b.example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(line, r.err);
  EXPECT_EQ(line, r.out);
}

}  // namespace
