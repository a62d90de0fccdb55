// Utility execution against real programs: what is captured, what reaches
// the caller's two streams when a program fails, and that the program gets
// no descriptor but its standard ones.
#include "common/util_exec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "testing/child.h"

namespace {

using namespace testing_support;

// sh -c script, as an argument vector.
struct Shell {
  std::string script;
  char* argv[4] = {const_cast<char*>("sh"), const_cast<char*>("-c"), script.data(), nullptr};
};

TEST(UtilExec, CapturesBothStreamsWholeOrGivesMinusOneWhenKilled) {
  int inherited = open("/dev/null", O_RDONLY);
  ASSERT_GE(inherited, 0);
  char *out = nullptr, *err = nullptr;
  Shell big{"[ -e /proc/$$/fd/" + std::to_string(inherited) + " ] && echo leaked; " +
            "head -c 200000 /dev/zero | tr '\\0' o; head -c 150000 /dev/zero | tr '\\0' e >&2; exit 5"};
  EXPECT_EQ(5, fork_execv_getouterr(&out, &err, "/bin/sh", big.argv));
  close(inherited);
  EXPECT_EQ(std::string(200000, 'o'), out);
  EXPECT_EQ(std::string(150000, 'e'), err);
  std::free(out);
  std::free(err);
  Shell killed{"echo partial; kill -KILL $$"};
  EXPECT_EQ(-1, fork_execv_getouterr(&out, &err, "/bin/sh", killed.argv));
  EXPECT_STREQ("partial\n", out);
  EXPECT_EQ(nullptr, err);  // nothing was written there
  std::free(out);
}

TEST(UtilExec, FailingProgramIsReportedWithItsOutput) {
  const std::string report = "/bin/sh execution failed:\n" + std::string(10000, 'x') + "\n";
  RunResult r = runInChild([] {
    Shell sh{"printf '%s\\n' '100% %s%n done'; head -c 10000 /dev/zero | tr '\\0' x >&2; exit 3"};
    return exec_capture_report("/bin/sh", sh.argv, 0);
  });
  EXPECT_EQ(3, r.exitCode());
  EXPECT_EQ(report, r.out);
  EXPECT_EQ("100% %s%n done\n" + report, r.err);  // the output is text, never a format

  r = runInChild([] { return exec_capture_report_va("/bin/sh", "sh", "-c", "exit 1", nullptr); });
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("/bin/sh execution failed (no output)\n", r.out);
}

TEST(UtilExec, AdminUtilityNameWithPathIsRefused) {
  std::filesystem::create_directories("/opt/orb/admin/bin/sub");
  writeFile("/opt/orb/admin/bin/sub/show-args", "#!/bin/sh\ntouch /run/started\n", 0755);
  RunResult r = runInChild([] { return admin_util_exec("sub/show-args", "a", nullptr) + 1; });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("Utility name 'sub/show-args' is invalid. Use only utility name without path.\n", r.out);
  EXPECT_FALSE(pathExists("/run/started"));
}

TEST(UtilExec, PopenReportsCodeAndOutput) {
  RunResult r = runInChild([] { return popen_exec_report("exit 2"); });
  EXPECT_EQ(2, r.exitCode());
  EXPECT_EQ("popen_exec: command failed code: 2 , error: none\n", r.out);
  EXPECT_EQ(r.out, r.err);
}

}  // namespace
