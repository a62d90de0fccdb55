// Handler names: splitting into priority and template, and ordering; a
// description's parameter file rewritten on the real store.
#include "mail/handlers/handler_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include "testing/handler_fixture.h"

namespace {

using namespace handler_testing;

TEST_F(HandlerStore, NamesSplitIntoPriorityAndTemplateAndSortNumerically) {
  const struct {
    const char *name, *priority, *tmpl, *error;
  } cases[] = {
      {"10-spam-Ab3xYz", "10", "spam", nullptr},
      {"5-anti-spam-Qw12er", "5", "anti-spam", nullptr},
      {"nodash", "<null>", "<null>", "3:Invalid handler name 'nodash': missing priority section"},
      {"10-spam", "<null>", "<null>", "3:Invalid handler name '10-spam': missing random part"},
      {"10--Ab3xYz", "<null>", "<null>",
       "3:Invalid handler name '10--Ab3xYz': empty template part"},
  };
  for (const auto& c : cases) {
    testing_support::log_capture->clear();
    EXPECT_EQ(c.priority, str(handler_priority(c.name))) << c.name;
    EXPECT_EQ(c.tmpl, str(handler_template(c.name))) << c.name;
    EXPECT_EQ(c.error ? Strings(2, c.error) : Strings(), captured_log()) << c.name;
  }

  Strings input = {"10-spam-Ab3xYz", "100-a-Zz0000", "9-virus-Qw12er", "10-av-Zz9999",
                   "10-spam-Aa0000"};
  std::vector<char*> names;
  for (std::string& s : input) names.push_back(&s[0]);
  handler_sort(names.data(), names.size());
  EXPECT_EQ((Strings{"9-virus-Qw12er", "10-av-Zz9999", "10-spam-Aa0000", "10-spam-Ab3xYz",
                     "100-a-Zz0000"}),
            Strings(names.begin(), names.end()));
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
  EXPECT_EQ(Strings(), captured_log());
}

}  // namespace
