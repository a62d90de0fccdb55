// Line-file editor: the rule that decides which lines a text names.
#include "common/file_str.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(FileStrMatch, OneTrailingLineFeedIsIgnoredOnEitherSide) {
  struct Case {
    const char* line;
    const char* text;
    bool matches;
  } cases[] = {
      {"&a@b.example\n", "&a@b.example", true},
      {"&a@b.example", "&a@b.example\n", true},
      {"&a@b.example\n", "&a@b.example\n", true},
      {"&a@b.example", "&a@b.example", true},  // last line without its line feed
      {"\n", "", true},
      {"./Maildir/\n", "./Maildir", false},
      {"./Maildir\n", "./Maildir/", false},
      {" ./Maildir/\n", "./Maildir/", false},
      {"./Maildir/\n\n", "./Maildir/", false},
      {"./Maildir/\n", "./Maildir/\n\n", false},
      {"a\n", "a\nb", false},
      {"\n", "\n\n", false},
  };
  for (const Case& c : cases)
    EXPECT_EQ(c.matches, file_str_line_matches(c.line, c.text))
        << "line \"" << c.line << "\" text \"" << c.text << "\"";
}

TEST(FileStrMatch, BytesAfterANulStillCount) {
  using namespace std::string_literals;
  EXPECT_FALSE(file_str_line_matches("ab\0c\n"s, "ab\0d"s));
  EXPECT_TRUE(file_str_line_matches("ab\0c\n"s, "ab\0c"s));
}

}  // namespace
