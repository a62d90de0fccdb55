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

constexpr const char* kMissing = "/nonexistent/prog";
constexpr const char* kFormats = "echo '100% %n out'; echo '%s%n err' >&2; exit 3";

// util_exec of sh -c script (of kMissing when null) reading "ping" from a
// file, with what it wrote to its output file printed after it.
int utilExecPrinting(const char* script) {
  const int in = open("/run/util-in", O_RDONLY);
  const int out = open("/run/util-out", O_WRONLY | O_CREAT | O_TRUNC, 0600);
  Shell sh{script != nullptr ? script : ""};
  // The forked child comes back here as -1 when execv fails.
  const int code = util_exec(in, out, script != nullptr ? "/bin/sh" : kMissing, sh.argv);
  std::fputs(readFile("/run/util-out").c_str(), stdout);
  return code;
}

// popen_exec with what it captured printed after it.
int popenPrinting(const char* command) {
  char* out = nullptr;
  const int code = popen_exec(command, &out);
  std::fputs(out, stdout);
  std::free(out);
  return code;
}

TEST(UtilExec, EachRunnerGivesItsCodeAndShowsWhatItShould) {
  writeFile("/run/util-in", "ping\n");
  writeFile("/usr/lib/zanth-9.0/mxkeep-args", "#!/bin/sh\necho \"$0|$*\" >&2\nexit $1\n", 0755);
  std::filesystem::create_directories("/opt/orb/admin/bin/sub");
  writeFile("/opt/orb/admin/bin/sub/show-args", "#!/bin/sh\ntouch /run/started\n", 0755);
  const std::string report = "/bin/sh execution failed:\n%s%n err\n";
  const std::string failed =
      "/usr/lib/zanth-9.0/mxkeep-args execution failed:\n/usr/lib/zanth-9.0/mxkeep-args|4 b\n";
  const std::string refused =
      "Utility name 'sub/show-args' is invalid. Use only utility name without path.\n";
  const std::string execFailed = "Error occured during execv():\nNo such file or directory.\n";
  const std::string bigReport = "/bin/sh execution failed:\n" + std::string(70000, 'e') + "\n";
  const struct {
    int (*run)();
    int code;
    std::string out{}, err{};  // on the caller's standard output and error
  } cases[] = {
      // util_exec passes its streams and shows standard error as it comes.
      {[] { return utilExecPrinting("cat; echo oops >&2; exit 3"); }, 3, "oops\nping\n", "oops\n"},
      {[] { return utilExecPrinting(nullptr); }, 255, execFailed, execFailed},
      // exec_silent shows nothing and tells only of a signal.
      {[] { return exec_silent("/bin/sh", "sh", "-c", "echo o; echo e >&2; exit 3", nullptr); }, 0},
      {[] { return exec_silent("/bin/sh", "sh", "-c", "kill -KILL $$", nullptr); }, 1},
      {[] { return exec_silent(kMissing, "prog", nullptr); }, 0},
      // lib_util_exec passes its arguments after the program's path.
      {[] { return lib_util_exec("mxkeep-args", "4", "b", nullptr); }, 4, failed, failed},
      // Both streams captured whole past a pipe's buffer; no other descriptor passed.
      {[] {
         const int extra = open("/dev/null", O_RDONLY);
         const std::string script = "[ -e /proc/$$/fd/" + std::to_string(extra) +
                                    " ] && echo leaked; head -c 70000 /dev/zero | tr '\\0' o; "
                                    "head -c 70000 /dev/zero | tr '\\0' e >&2; exit 5";
         return exec_capture_report_va("/bin/sh", "sh", "-c", script.c_str(), nullptr);
       },
       5, bigReport, std::string(70000, 'o') + bigReport},
      // A failing program's output is printed as text, never as a format.
      {[] { return exec_capture_report_va("/bin/sh", "sh", "-c", kFormats, nullptr); }, 3, report,
       "100% %n out\n" + report},
      // The panel's own utilities are named without a path.
      {[] { return admin_util_exec("sub/show-args", "a", nullptr) + 1; }, 0, refused, refused},
      // popen_exec captures standard output past its buffer step.
      {[] { return popenPrinting("echo hi; echo ignored >&2; exit 3"); }, 3, "hi\n", "ignored\n"},
      {[] { return popenPrinting("head -c 70000 /dev/zero | tr '\\0' o"); }, 0,
       std::string(70000, 'o')},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("row " + std::to_string(&c - cases));
    const RunResult r = runInChild(c.run);
    EXPECT_EQ(c.code, r.exitCode());
    EXPECT_EQ(c.out, r.out);
    EXPECT_EQ(c.err, r.err);
  }
  EXPECT_FALSE(pathExists("/run/started"));
}

}  // namespace
