// Handler names: splitting into priority and template, and ordering; the
// parameter files and program link of a description on the real store.
#include "mail/handlers/handler_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "testing/child.h"
#include "testing/handler_fixture.h"

namespace {

using namespace handler_testing;

TEST_F(HandlerStore, NamesSplitIntoPriorityAndTemplateAndSortNumerically) {
  const struct { const char *name, *priority, *tmpl, *error; } cases[] = {
      {"10-spam-Ab3xYz", "10", "spam", nullptr},
      {"5-anti-spam-Qw12er", "5", "anti-spam", nullptr},
      {"nodash", "<null>", "<null>", "3:Invalid handler name 'nodash': missing priority section"},
      {"10-spam", "<null>", "<null>", "3:Invalid handler name '10-spam': missing random part"},
      {"10--Ab3xYz", "<null>", "<null>",
       "3:Invalid handler name '10--Ab3xYz': empty template part"},
  };
  for (const auto& c : cases) {
    captured_log.clear();
    EXPECT_EQ(c.priority, str(handler_priority(c.name))) << c.name;
    EXPECT_EQ(c.tmpl, str(handler_template(c.name))) << c.name;
    EXPECT_EQ(c.error ? Strings(2, c.error) : Strings(), captured_log) << c.name;
  }

  Strings input = {"10-spam-Ab3xYz", "100-a-Zz0000", "9-virus-Qw12er", "10-av-Zz9999",
                   "10-spam-Aa0000"};
  std::vector<char*> names;
  for (std::string& s : input) names.push_back(&s[0]);
  handler_sort(names.data(), names.size());
  EXPECT_EQ((Strings{"9-virus-Qw12er", "10-av-Zz9999", "10-spam-Aa0000", "10-spam-Ab3xYz",
                     "100-a-Zz0000"}), Strings(names.begin(), names.end()));
}

TEST_F(HandlerStore, ParameterFileIsRewrittenAsOneLineReadersCanRead) {
  const std::string dir = kInfo + "10-spam-Ab3xYz";
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  testing_support::writeFile(dir + "/hook", "a much longer old value\nsecond line\n", 0600);
  const mode_t saved = umask(077);
  EXPECT_EQ(0, handler_store_param(dir.c_str(), "hook", "smtp"));
  EXPECT_EQ(0, handler_store_param(dir.c_str(), "context", "ctx"));
  umask(saved);
  EXPECT_EQ("smtp\nctx\n", params("10-spam-Ab3xYz", {"hook", "context"}));
  for (const char* file : {"/hook", "/context"}) {
    struct stat st;
    ASSERT_EQ(0, stat((dir + file).c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 07777) << file;
  }
  EXPECT_EQ(Strings(), captured_log);

  // Opened relative to the directory, a file is still named in full.
  ASSERT_EQ(0, mkdir((dir + "/handler-type").c_str(), 0755));
  const testing_support::RunResult r = testing_support::runInChild([&] {
    const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    std::printf("<%d>", handler_store_param_at(fd, dir.c_str(), "handler-type", "sender"));
    return 0;
  });
  EXPECT_EQ("Unable to truncate or create file " + dir + "/handler-type: Is a directory\n"
            "System error 21: Is a directory\n<-1>",
            r.out);
}

TEST_F(HandlerStore, ExecutableIsTheProgramTheLinkLeadsTo) {
  // Relative links lead from the description, absolute ones through any
  // linked directory on the way.
  testing_support::writeFile("/opt/orb/handlers/prog", "#!/bin/sh\n", 0755);
  ASSERT_EQ(0, symlink("/usr/bin", "/opt/orb/handlers/bin"));
  const struct { const char *link, *resolved; } cases[] = {
      {"../../prog", "/opt/orb/handlers/prog"},
      {"/opt/orb/handlers/bin/true", "/usr/bin/true"},
      {"/opt/orb/handlers/missing", "<null>"},
  };
  for (const auto& c : cases) {
    const std::string dir = kInfo + "10-spam-Ab3xYz";
    ASSERT_EQ(0, testing_support::shell("rm -rf " + dir + " && mkdir " + dir).exitCode());
    ASSERT_EQ(0, symlink(c.link, (dir + "/executable").c_str()));
    captured_log.clear();
    EXPECT_EQ(c.resolved, str(handler_executable("10-spam-Ab3xYz"))) << c.link;
    EXPECT_EQ(c.resolved[0] == '<'
                  ? Strings{"3:Unable to get executable file name for handler\n"}
                  : Strings(),
              captured_log)
        << c.link;
  }
}

}  // namespace
