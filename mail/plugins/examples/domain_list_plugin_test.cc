// The example domain-list plugin run by the runner: which lines of the list
// it renames, and that the list keeps its mode and no temporary file stays.
#include <gtest/gtest.h>

#include "mail/plugins/plugin_runner.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;

TEST(DomainListPlugin, RenamesTheMatchingLineOnly) {
  const std::string list = "/var/lib/zanth/mail/local_domains", dir = kRenamePluginDir;
  ASSERT_EQ(0, shell("mkdir -p /var/lib/zanth/mail " + dir + " && cp " +
                     buildPath("domain_list_plugin.so") + " " + dir)
                   .exitCode());
  const struct {
    const char *before, *after;
  } cases[] = {
      {"x.example\nold.example", "x.example\nnew.example"},
      {"old.example\nb.example\nNEW.example\n", "b.example\nNEW.example\n"},
      {"sub.old.example\nold.example.org\n old.example\n", nullptr},  // left alone
  };
  for (const auto& c : cases) {
    writeFile(list, c.before, 0640);
    const RunResult r = runInChild([] { return run_rename_plugins("old.example", "new.example"); });
    EXPECT_EQ(0, r.exitCode()) << r.err;
    EXPECT_EQ(c.after ? c.after : c.before, readFile(list)) << c.before;
    EXPECT_EQ("0640", shell("stat --printf %#a " + list).out) << c.before;
    EXPECT_FALSE(pathExists(list + ".tmp")) << c.before;
  }
}

}  // namespace
