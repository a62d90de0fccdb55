// Handler index against the store's own search: on a store with look-alike
// templates, mixed case and damaged descriptions, every answer the index
// gives is the one handler_find gives, and it defers where it cannot know.
#include "mail/handlers/handler_index.h"

#include <sys/stat.h>

#include "testing/handler_fixture.h"

namespace {

using namespace handler_testing;
using zanth::handlers::HandlerIndex;
using Find = HandlerIndex::Find;

using HandlerIndexTest = HandlerStore;

// A description directory with only the given parameter files.
void describe(const std::string& name,
              std::initializer_list<std::pair<const char*, const char*>> files) {
  ASSERT_EQ(0, mkdir((kInfo + name).c_str(), 0755));
  for (const auto& file : files)
    testing_support::writeFile(kInfo + name + "/" + file.first, file.second);
}

TEST_F(HandlerIndexTest, AnswersAsTheStoreSearchDoes) {
  add("recipient", "u@a.example", "antispam");
  add("recipient", "U@A.example", "spam");
  add("global", nullptr, "spam");
  describe("10-broken-Ab3xYz", {{"hook", "smtp\n"}});
  describe("10-oddhook-Zz9999", {{"hook", "other\n"}});
  describe("10-novalue-Qq1111", {{"hook", "smtp\n"}, {"handler-type", "sender\n"}});
  // Type and value read, but the hook is missing.
  describe("10-nohook-Nn4444", {{"handler-type", "recipient\n"}, {"recipient", "u@a.example\n"}});
  // Padded and upper-case values read back trimmed and compare ignoring case.
  describe("10-padded-Pp2222", {{"hook", " smtp \n"},
                                {"handler-type", "sender-domain\n"},
                                {"sender-domain", "\tC.Example  \nignored\n"}});

  HandlerIndex index;
  ASSERT_TRUE(index.load());
  EXPECT_EQ(8u, index.size());
  const struct {
    const char *tmpl, *type, *target, *hook;
    Find answer;
  } cases[] = {
      {"spam", "recipient", "U@A.EXAMPLE", "smtp", Find::kFound},  // either, as ordered on disk
      {"spam", "global", nullptr, "smtp", Find::kFound},
      {"padded", "sender-domain", "c.example", "smtp", Find::kFound},
      // The damaged ones: the store search stops at them, the index defers.
      {"broken", "recipient", "u@a.example", "smtp", Find::kAskStore},
      {"novalue", "sender", "x@a.example", "smtp", Find::kAskStore},
      {"nohook", "sender", "x@a.example", "smtp", Find::kAskStore},
      {"10-", "sender", "x@a.example", "smtp", Find::kAskStore},
      // Excluded by what could be read: other hook, other type.
      {"oddhook", "recipient", "u@a.example", "smtp", Find::kNone},
      {"novalue", "recipient", "u@a.example", "smtp", Find::kNone},
      // Arguments the store search refuses are left to it.
      {"", "recipient", "u@a.example", "smtp", Find::kAskStore},
      {"spam", "recipient", "u@a.example", nullptr, Find::kAskStore},
      {"spam", "nosuchtype", "u@a.example", "smtp", Find::kAskStore},
  };
  for (const auto& c : cases) {
    const std::string query = std::string(c.tmpl) + " " + c.type + " " +
                              (c.target ? c.target : "(null)") + " " + (c.hook ? c.hook : "(null)");
    testing_support::log_capture->clear();
    std::string found;
    const Find answer = index.find(c.tmpl, c.type, c.target, c.hook, &found);
    EXPECT_EQ(static_cast<int>(c.answer), static_cast<int>(answer)) << query;
    EXPECT_EQ(Strings(), captured_log()) << "the index never reports: " << query;
    if (answer != Find::kAskStore) {
      EXPECT_EQ(str(handler_find(c.tmpl, c.type, c.target, c.hook)),
                answer == Find::kFound ? found : "<null>")
          << query;
    }
  }
}

TEST_F(HandlerIndexTest, FollowsHandlersAddedAndRemovedAfterLoading) {
  const std::string first = add("sender", "u@a.example");
  HandlerIndex index;
  ASSERT_TRUE(index.load());
  std::string found;
  EXPECT_EQ(Find::kNone, index.find("spam", "sender", "n@b.example", "smtp", &found));

  const std::string copy = add("sender", "n@b.example");
  index.added(copy.c_str());
  ASSERT_EQ(2u, index.size());
  ASSERT_EQ(Find::kFound, index.find("spam", "sender", "N@B.example", "smtp", &found));
  EXPECT_EQ(copy, found);

  ASSERT_EQ(0, handler_action(first.c_str(), nullptr, kHandlerRemove));
  ASSERT_EQ(0, handler_action(copy.c_str(), nullptr, kHandlerRemove));
  index.forgetIfGone(0);
  index.forgetIfGone(1);
  EXPECT_TRUE(index.gone(0));
  EXPECT_TRUE(index.gone(1));
  EXPECT_EQ(Find::kNone, index.find("spam", "sender", "n@b.example", "smtp", &found));
}

}  // namespace
