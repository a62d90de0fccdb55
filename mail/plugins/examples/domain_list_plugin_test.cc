// The example domain-list plugin, loaded as a real module: which lines it
// renames, that the list keeps its mode and is replaced rather than edited
// in place, and that it works when run by the plugin runner.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "mail/plugins/plugin_runner.h"
#include "mail/plugins/rename_plugin.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

using testing_support::readFile;
using testing_support::writeFile;

const std::string kList = "/var/lib/zanth/mail/local_domains";
const std::string kModule = testing_support::buildPath("domain_list_plugin.so");

class DomainListPlugin : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all("/var/lib/zanth/mail");
    std::filesystem::create_directories("/var/lib/zanth/mail");
    handle_ = dlopen(kModule.c_str(), RTLD_NOW);
    ASSERT_NE(nullptr, handle_) << dlerror();
    rename_ = reinterpret_cast<rename_domain_fn>(dlsym(handle_, kRenamePluginEntry));
    ASSERT_NE(nullptr, rename_);
  }
  void TearDown() override {
    if (handle_ != nullptr) dlclose(handle_);
  }

  void* handle_ = nullptr;
  rename_domain_fn rename_ = nullptr;
};

TEST_F(DomainListPlugin, RenamesTheMatchingLineOnly) {
  const struct {
    const char* before;
    const char* after;
  } cases[] = {
      {"a.example\nold.example\nb.example\n", "a.example\nnew.example\nb.example\n"},
      {"OLD.Example\n", "new.example\n"},
      {"x.example\nold.example", "x.example\nnew.example"},
      {"old.example\nb.example\nNEW.example\n", "b.example\nNEW.example\n"},
      {"sub.old.example\nold.example.org\n old.example\n", nullptr},
  };
  for (const auto& c : cases) {
    writeFile(kList, c.before, 0640);
    struct stat before, after;
    ASSERT_EQ(0, stat(kList.c_str(), &before));
    EXPECT_EQ(0, rename_("old.example", "new.example")) << c.before;
    EXPECT_EQ(c.after ? c.after : c.before, readFile(kList)) << c.before;
    ASSERT_EQ(0, stat(kList.c_str(), &after));
    EXPECT_EQ(0640u, after.st_mode & 07777) << c.before;
    // A changed list is a new file renamed into place; an unchanged one is
    // left alone.
    EXPECT_EQ(c.after != nullptr, before.st_ino != after.st_ino) << c.before;
    EXPECT_FALSE(testing_support::pathExists(kList + ".tmp"));
  }
}

TEST_F(DomainListPlugin, MissingListIsFineAndAFailedWriteKeepsTheList) {
  EXPECT_EQ(0, rename_("old.example", "new.example"));
  EXPECT_FALSE(testing_support::pathExists(kList));

  writeFile(kList, "old.example\n");
  std::filesystem::create_directory(kList + ".tmp");
  testing_support::RunResult r =
      testing_support::runInChild([this] { return rename_("old.example", "new.example"); });
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("domain_list: " + kList + ".tmp: open: Is a directory\n", r.err);
  EXPECT_EQ("old.example\n", readFile(kList));
}

TEST_F(DomainListPlugin, RunsFromThePluginDirectory) {
  writeFile(kList, "old.example\nother.example\n");
  std::filesystem::remove_all(kRenamePluginDir);
  std::filesystem::create_directories(kRenamePluginDir);
  std::filesystem::copy_file(kModule, std::string(kRenamePluginDir) + "/domain_list_plugin.so");
  testing_support::RunResult r = testing_support::runInChild(
      [] { return run_rename_plugins("old.example", "xn--bcher-kva.example"); });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("", r.err);
  EXPECT_EQ("xn--bcher-kva.example\nother.example\n", readFile(kList));
}

}  // namespace
