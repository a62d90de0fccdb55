// The plugin runner with real loadable modules copied or linked into the
// plugin directory: which modules run, with which arguments, and what the
// run reports on standard error when one fails, crashes or cannot load.
#include "mail/plugins/plugin_runner.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "testing/child.h"
#include "testing/test_support.h"

namespace {

namespace fs = std::filesystem;
using testing_support::runInChild;
using testing_support::RunResult;

const std::string kDir = kRenamePluginDir;

std::string module(const std::string& kind) {
  return testing_support::buildPath("test_plugins/" + kind + ".so");
}

void install(const std::string& kind, const std::string& name) {
  fs::copy_file(module(kind), kDir + "/" + name);
}

RunResult runPlugins() {
  return runInChild([] { return run_rename_plugins("old.example", "xn--bcher-kva.example"); });
}

// The modules that ran, as "<path> <old> <new>" lines in sorted order.
std::vector<std::string> recordedCalls() {
  std::vector<std::string> lines;
  if (!testing_support::pathExists(MXKEEP_PLUGIN_RECORD)) return lines;
  std::string text = testing_support::readFile(MXKEEP_PLUGIN_RECORD);
  for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(text.substr(start, end - start));
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::string call(const std::string& name) {
  return kDir + "/" + name + " old.example xn--bcher-kva.example";
}

// Each case starts from an empty plugin directory and no record.
class PluginRunner : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(kDir);
    fs::create_directories(kDir);
    fs::remove(MXKEEP_PLUGIN_RECORD);
  }
};

TEST_F(PluginRunner, RunsEveryRegularFileWithTheNamesAsGiven) {
  install("recording", "recorder");
  fs::create_symlink(module("recording"), kDir + "/linked");
  fs::create_symlink("/nonexistent/module.so", kDir + "/dangling");
  fs::create_directory(kDir + "/subdir");
  install("failing", "subdir/failing.so");
  install("status256", "status256.so");  // exit status 256 & 0xff = 0

  RunResult r = runPlugins();
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("", r.err);
  EXPECT_EQ("", r.out);
  EXPECT_EQ((std::vector<std::string>{call("linked"), call("recorder")}), recordedCalls());
}

TEST_F(PluginRunner, FirstFailureStopsTheRun) {
  for (const char* name : {"rec-1", "rec-2", "rec-3"}) install("recording", name);
  install("failing", "failing");
  // Directory order is not sorted: the recorders that come before the
  // failing module run, the others must not.
  std::vector<std::string> expected;
  DIR* dir = opendir(kDir.c_str());
  ASSERT_NE(nullptr, dir);
  for (dirent* e; (e = readdir(dir)) != nullptr && std::string(e->d_name) != "failing";) {
    if (e->d_name[0] != '.') expected.push_back(call(e->d_name));
  }
  closedir(dir);
  std::sort(expected.begin(), expected.end());

  RunResult r = runPlugins();
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("plugin 'failing' failed with status '1'\n", r.err);
  EXPECT_EQ(expected, recordedCalls());
}

TEST_F(PluginRunner, CrashingModuleFailsTheRun) {
  install("crashing", "crash.so");
  RunResult r = runPlugins();
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("child killed by signal: 11\nplugin 'crash.so' failed with status '1'\n", r.err);
}

TEST_F(PluginRunner, UnloadableFilesDoNotFailTheRun) {
  testing_support::writeFile(kDir + "/README", std::string(200, '#') + "\nnot a module\n");
  install("no_entry", "no_entry.so");
  RunResult r = runPlugins();
  EXPECT_EQ(0, r.exitCode());
  const std::string prefix = "cannop load '" + kDir + "/README' plugin: ";
  EXPECT_EQ(prefix, r.err.substr(0, prefix.size())) << r.err;
  EXPECT_EQ(std::string::npos, r.err.find("no_entry")) << r.err;
  EXPECT_GT(r.err.size(), prefix.size()) << "the loader's reason is missing";
}

TEST_F(PluginRunner, PluginDirectoryMustExist) {
  RunResult r = runPlugins();  // the sandbox's empty directory
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("", r.err);

  const std::string message =
      "plugin directory '/usr/lib/zanth-9.0/domain_rename' not exists or not directory";
  fs::remove(kDir);
  r = runPlugins();
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(message, r.err);

  testing_support::writeFile(kDir, "");
  r = runPlugins();
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(message, r.err);
}

}  // namespace
