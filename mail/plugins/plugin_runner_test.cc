// The plugin runner with real modules in the plugin directory: which run,
// with which arguments, what a failing or unloadable one reports, and that
// a plugin calling exit() ends only its own child.
#include "mail/plugins/plugin_runner.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include <sstream>

#include "testing/child.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;

const std::string kDir = std::string(kRenamePluginDir) + "/";
const std::string kModules = buildPath("test_plugins/");

// Runs the plugins in a child, from a directory set up by the shell command,
// in which ${M} names the directory of the test modules.
RunResult runWith(const std::string& setup) {
  EXPECT_EQ(0,
            shell("M=" + kModules + " && rm -rf " + kDir + " " MXKEEP_PLUGIN_RECORD " && mkdir " +
                  kDir + " && cd " + kDir + " && " + setup)
                .exitCode());
  return runInChild([] { return run_rename_plugins("old.example", "xn--bcher-kva.example"); });
}

TEST(PluginRunner, RunsModulesWithTheNamesAsGivenAndPassesOverTheRest) {
  // A linked recorder, a dangling link, a subdirectory, 256, no entry point, text.
  const RunResult r = runWith(
      "ln -s ${M}recording.so linked && ln -s /nowhere.so dangling && mkdir subdir && "
      "cp ${M}failing.so subdir && cp ${M}status256.so ${M}no_entry.so . && "
      "printf '%0200d\\nnot a module\\n' 0 > README");
  ASSERT_EQ(nullptr, dlopen((kDir + "README").c_str(), RTLD_NOW));
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("cannop load '" + kDir + "README' plugin: " + dlerror(), r.err);
  EXPECT_EQ("", r.out);
  EXPECT_EQ(kDir + "linked old.example xn--bcher-kva.example\n", readFile(MXKEEP_PLUGIN_RECORD));
}

TEST(PluginRunner, FailuresStopTheRunAndAreReported) {
  const RunResult r = runWith(
      "cp ${M}recording.so rec-1 && cp ${M}failing.so failing && "
      "cp ${M}recording.so rec-2");
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("plugin 'failing' failed with status '1'\n", r.err);
  std::istringstream order(shell("ls -U " + kDir).out);  // the order the run follows
  std::string ran;
  for (std::string name; std::getline(order, name) && name != "failing";)
    ran += kDir + name + " old.example xn--bcher-kva.example\n";
  EXPECT_EQ(ran, shell("cat " MXKEEP_PLUGIN_RECORD " 2>/dev/null").out);

  // A file where the directory should be (a missing one fails the same way).
  const RunResult file = runWith("cd / && rmdir " + kDir + " && touch " + kRenamePluginDir);
  EXPECT_EQ(1, file.exitCode());
  EXPECT_EQ("plugin directory '/usr/lib/zanth-9.0/domain_rename' not exists or not directory",
            file.err);
}

// An exit handler of the process that runs the plugins; a plugin's child
// must never run it.
pid_t g_runnerPid = 0;
void markExitOfAnotherProcess() {
  if (::getpid() != g_runnerPid) ::close(::open("/run/foreign-exit", O_WRONLY | O_CREAT, 0644));
}

TEST(PluginRunner, PluginCallingExitEndsOnlyItsOwnChild) {
  const RunResult r = runWith("cp ${M}exiting.so . && rm -f /run/foreign-exit");
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("the exiting plugin ran", r.out);  // its own output still flushed
  EXPECT_FALSE(pathExists("/run/foreign-exit"));
}

}  // namespace

// Registered before any test runs, like the exit handlers of a real tool.
[[maybe_unused]] static const bool kExitHandlerRegistered = [] {
  g_runnerPid = ::getpid();
  return std::atexit(markExitOfAnotherProcess) == 0;
}();
