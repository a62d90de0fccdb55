// Map record filters on a table of real map lines: each record renamed,
// normalised or dropped with its warning.
#include "mail/postfix/database/filters.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

namespace db = zanth::mail::postfix::database;
const std::string kOld = "a.example", kNew = "b.example";
const db::ElementsFilter<db::ReplaceElementFilterRef> kDomains{
    db::ReplaceElementFilterRef(kOld, kNew)};
const db::ElementsFilter<db::ReplaceDomainPart> kAliases{db::ReplaceDomainPart(kOld, kNew, false)};
const db::KeyValueFilter<db::ReplaceDomainPart, db::ReplaceDomainPath> kMailboxes(
    db::ReplaceDomainPart(kOld, kNew, false), db::ReplaceDomainPath(kOld, kNew));

TEST(LineFilters, EachRecordIsRenamedNormalisedOrDropped) {
  const struct {
    std::function<bool(std::string&)> filter;
    const char *in, *out, *warning;
  } cases[] = {
      {kDomains, "x  y,z  c  ", "x y, z, c", ""},
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
    if (c.out != nullptr) {
      EXPECT_EQ(c.out, line);
    }
  }
}

}  // namespace
