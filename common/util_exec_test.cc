// Utility execution against real programs: what is captured, what reaches
// the caller's two streams when a program fails, and which descriptors and
// arguments the program gets.
#include "common/util_exec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include "testing/child.h"
#include "testing/test_support.h"

namespace {

using testing_support::runInChild;
using testing_support::readFile;
using testing_support::RunResult;

// sh -c script, as an argument vector.
struct Shell {
  explicit Shell(std::string script) : script_(std::move(script)) {}
  char* const* argv() { return args_; }
  std::string script_;
  char* args_[4] = {const_cast<char*>("sh"), const_cast<char*>("-c"), script_.data(), nullptr};
};

int capture(const std::string& script, std::string* out, std::string* err) {
  Shell sh(script);
  char* o = nullptr;
  char* e = nullptr;
  int result = fork_execv_getouterr(&o, &e, "/bin/sh", sh.argv());
  *out = o == nullptr ? "<null>" : o;
  *err = e == nullptr ? "<null>" : e;
  std::free(o);
  std::free(e);
  return result;
}

TEST(UtilExec, CapturesBothStreamsWhole) {
  std::string out, err;
  EXPECT_EQ(5, capture("head -c 200000 /dev/zero | tr '\\0' o; head -c 150000 /dev/zero | tr "
                       "'\\0' e >&2; exit 5",
                       &out, &err));
  EXPECT_EQ(std::string(200000, 'o'), out);
  EXPECT_EQ(std::string(150000, 'e'), err);

  EXPECT_EQ(0, capture("exit 0", &out, &err));
  EXPECT_EQ("<null>", out);
  EXPECT_EQ("<null>", err);

  EXPECT_EQ(-1, capture("echo partial; kill -KILL $$", &out, &err));
  EXPECT_EQ("partial\n", out);

  char* argv[] = {const_cast<char*>("prog"), nullptr};
  char *o, *e;
  EXPECT_EQ(255, fork_execv_getouterr(&o, &e, "/nonexistent/prog", argv));
  EXPECT_STREQ("fork_execv: execv(\"/nonexistent/prog\") failed: No such file or directory\n", e);
  std::free(o);
  std::free(e);
}

TEST(UtilExec, ChildGetsOnlyTheGivenDescriptors) {
  testing_support::TempDir dir;
  int inherited = open("/dev/null", O_RDONLY);
  int file = open((dir / "out").c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(inherited, 0);
  Shell sh("cat; [ -e /proc/$$/fd/" + std::to_string(inherited) +
           " ] && echo leaked; echo out; echo err >&2");
  // Standard input from /dev/null; output and error share one descriptor.
  pid_t pid = fork_execv_pipes(-1, file, file, "/bin/sh", sh.argv());
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  close(file);
  close(inherited);
  EXPECT_EQ(0, status);
  EXPECT_EQ("out\nerr\n", readFile(dir / "out"));
}

TEST(UtilExec, FailingProgramIsReportedWithItsOutput) {
  const std::string report = "/bin/sh execution failed:\n" + std::string(10000, 'x') + "\n";
  RunResult r = runInChild([] {
    Shell sh("printf '100%%%% done\\n'; head -c 10000 /dev/zero | tr '\\0' x >&2; exit 3");
    return exec_capture_report("/bin/sh", sh.argv(), 0);
  });
  EXPECT_EQ(3, r.exitCode());
  EXPECT_EQ(report, r.out);
  EXPECT_EQ("100% done\n" + report, r.err);  // standard output is used as a format

  r = runInChild([] { return exec_capture_report_va("/bin/sh", "sh", "-c", "exit 1", nullptr); });
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("/bin/sh execution failed (no output)\n", r.out);

  for (int quiet : {0, 1}) {
    r = runInChild([quiet] {
      Shell sh(quiet ? "echo out; echo err >&2; exit 9" : "echo out; echo err >&2");
      return exec_capture_report("/bin/sh", sh.argv(), quiet);
    });
    EXPECT_EQ(quiet ? 9 : 0, r.exitCode());
    EXPECT_EQ("", r.out + r.err) << "quiet " << quiet;
  }
}

template <size_t... I>
int runWithManyArgs(std::index_sequence<I...>) {
  return exec_capture_report_va("/bin/sh", "sh", "-c", "echo $0 $# >&2; exit 1",
                                ((void)I, "x")..., nullptr);
}

TEST(UtilExec, ArgumentListsAreCappedAtOneHundredEntries) {
  // sh, -c, script, $0 and 95 more arguments fill the 99 entries.
  RunResult r = runInChild([] { return runWithManyArgs(std::make_index_sequence<150>()); });
  EXPECT_EQ("/bin/sh execution failed:\nx 95\n", r.out);
}

TEST(UtilExec, NamedUtilitiesAreRunFromTheirDirectories) {
  const std::string tool = "#!/bin/sh\necho \"$0|$*\" >&2\ntouch /run/started\nexit 6\n";
  testing_support::writeFile("/usr/lib/zanth-9.0/show-args", tool, 0755);
  RunResult r = runInChild([] { return lib_util_exec("show-args", "a", "b c", nullptr); });
  EXPECT_EQ(6, r.exitCode());
  EXPECT_EQ(
      "/usr/lib/zanth-9.0/show-args execution failed:\n/usr/lib/zanth-9.0/show-args|a b c\n",
      r.out);

  // The product root comes from the configuration file.
  std::filesystem::create_directories("/opt/custom/admin/bin/sub");
  testing_support::writeFile("/etc/orb/orb.conf", "PRODUCT_ROOT_D /opt/custom\n");
  testing_support::writeFile("/opt/custom/admin/bin/show-args", tool, 0755);
  testing_support::writeFile("/opt/custom/admin/bin/sub/show-args", tool, 0755);
  std::filesystem::remove("/run/started");
  r = runInChild([] { return admin_util_exec("sub/show-args", "a", nullptr) == -1 ? 0 : 1; });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("Utility name 'sub/show-args' is invalid. Use only utility name without path.\n", r.out);
  EXPECT_FALSE(testing_support::pathExists("/run/started"));

  r = runInChild([] { return admin_util_exec("show-args", "a", nullptr); });
  EXPECT_EQ(6, r.exitCode());
  EXPECT_EQ(
      "/opt/custom/admin/bin/show-args execution failed:\n/opt/custom/admin/bin/show-args|a\n",
      r.out);
}

TEST(UtilExec, UtilExecRedirectsAndReportsStandardError) {
  testing_support::TempDir dir;
  testing_support::writeFile(dir / "in", "hello\n");
  int in = open((dir / "in").c_str(), O_RDONLY);
  int out = open((dir / "out").c_str(), O_WRONLY | O_CREAT, 0644);
  RunResult r = runInChild([&] {
    Shell sh("cat; echo warn >&2; exit 5");
    return util_exec(in, out, "/bin/sh", sh.argv());
  });
  EXPECT_EQ(5, r.exitCode());
  EXPECT_EQ("hello\n", readFile(dir / "out"));
  EXPECT_EQ("warn\n", r.out);
  EXPECT_EQ("warn\n", r.err);

  r = runInChild([&] {
    Shell sh("kill -TERM $$");
    return util_exec(in, out, "/bin/sh", sh.argv()) == -1 ? 0 : 1;
  });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_NE(std::string::npos, r.out.find(" killed by signal 15\n")) << r.out;

  // A failed execv comes back in the forked child, which ends here.
  r = runInChild([&] {
    pid_t self = getpid();
    Shell sh("");
    int result = util_exec(in, out, "/nonexistent/prog", sh.argv());
    if (getpid() != self) _exit(result == -1 ? 42 : 43);
    return result;
  });
  EXPECT_EQ(42, r.exitCode());
  EXPECT_EQ("Error occured during execv():\nNo such file or directory.\n", r.out);
  close(in);
  close(out);
}

TEST(UtilExec, ExecSilentHidesOutputAndReportsOnlySignals) {
  RunResult r = runInChild([] {
    int exited = exec_silent("/bin/sh", "sh", "-c", "echo noise; echo ran > /run/ran; exit 7", nullptr);
    int killed = exec_silent("/bin/sh", "sh", "-c", "kill -KILL $$", nullptr);
    return exited * 10 + killed;
  });
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("", r.out + r.err);
  EXPECT_EQ("ran\n", readFile("/run/ran"));
}

TEST(UtilExec, PopenReportsCodeAndOutput) {
  char* out = nullptr;
  EXPECT_EQ(4, popen_exec("head -c 9000 /dev/zero | tr '\\0' p; exit 4", &out));
  EXPECT_EQ(std::string(9000, 'p'), out);
  std::free(out);

  RunResult r = runInChild([] { return popen_exec_report("exit 2"); });
  EXPECT_EQ(2, r.exitCode());
  EXPECT_EQ("popen_exec: command failed code: 2 , error: none\n", r.out);
  EXPECT_EQ(r.out, r.err);
  r = runInChild([] { return popen_exec_report("echo broken; exit 3"); });
  EXPECT_EQ("popen_exec: command failed code: 3 , broken\n\n", r.out);
  r = runInChild([] { return popen_exec_report("echo fine"); });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("", r.out + r.err);
}

}  // namespace
