// Map record filters on tables of real map lines: records renamed, normalised
// or dropped with their warning, and lines cut across any block size.
#include "mail/postfix/database/filters.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

namespace {

namespace db = zanth::mail::postfix::database;
const std::string kOld = "a.example", kNew = "b.example";
const db::ElementsFilter<db::ReplaceElementFilterRef> kDomains{db::ReplaceElementFilterRef(kOld, kNew)};
const db::ElementsFilter<db::ReplaceDomainPart> kAliases{db::ReplaceDomainPart(kOld, kNew, false)};
const db::KeyValueFilter<db::ReplaceDomainPart, db::ReplaceDomainPath> kMailboxes(
    db::ReplaceDomainPart(kOld, kNew, false), db::ReplaceDomainPath(kOld, kNew));

TEST(LineFilters, EachRecordIsRenamedNormalisedOrDropped) {
  const struct { std::function<bool(std::string&)> filter; const char *in, *out, *warning; } cases[] = {
      {kDomains, "x  y,z  c  ", "x y, z, c", ""},
      {kDomains, "k ,\t a,", "k a, ", ""},
      {kDomains, "k a.example,xa.example a.example", "k b.example, xa.example, b.example", ""},
      {kDomains, "k , ,", nullptr, ""},
      {kDomains, "a.example   ", nullptr, ""},
      {kDomains, "a.example", nullptr, "invalid key/value 'a.example'\n"},
      {kAliases, "@a.example A@A.EXAMPLE,a.example", "@b.example A@A.EXAMPLE, b.example", ""},
      {kMailboxes, "u@a.example  c.example/a.example/ ", "u@b.example c.example/a.example/", ""},
      {kMailboxes, "u@c.example c/u/, x  y", "u@c.example c/u/, x  y", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("input '") + c.in + "'");
    std::string line = c.in;
    testing::internal::CaptureStderr();
    EXPECT_EQ(c.out != nullptr, c.filter(line));  // out nullptr: dropped
    EXPECT_EQ(c.warning, testing::internal::GetCapturedStderr());
    if (c.out != nullptr) { EXPECT_EQ(c.out, line); }
  }
}

TEST(DataStreamFilter, SameLinesInOrderWhateverTheBlockSize) {
  const std::string input = "z@a.example a.example/z/\nbroken\na@a.example\ta.example/a/\n\nm@c.example c.example/m/";
  for (size_t size = 1; size <= input.size(); ++size) {
    SCOPED_TRACE(size);
    std::ostringstream out;
    testing::internal::CaptureStderr();
    db::DataStreamFilter<decltype(kMailboxes)> stream(kMailboxes, out);
    auto consumer = stream.consumer();
    for (size_t pos = 0; pos < input.size(); pos += size)
      consumer(std::vector<char>(input.begin() + pos, input.begin() + std::min(pos + size, input.size())));
    consumer(std::vector<char>());
    EXPECT_EQ("m@c.example c.example/m/", stream.pending());
    stream.finish();
    stream.finish();  // nothing pending any more: writes nothing
    EXPECT_EQ("z@b.example b.example/z/\na@b.example b.example/a/\nm@c.example c.example/m/\n", out.str());
    EXPECT_EQ("invalid key/value 'broken'\ninvalid key/value ''\n", testing::internal::GetCapturedStderr());
  }
}

}  // namespace
