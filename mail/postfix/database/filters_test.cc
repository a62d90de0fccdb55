// Map record filters on tables of real map lines: the element rules, the
// normalisation of kept records, dropped records with their std::clog
// text, and line cutting across every block boundary.
#include "mail/postfix/database/filters.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

namespace db = zanth::mail::postfix::database;
const std::string kOld = "a.example", kNew = "b.example";
const db::ElementsFilter<db::ReplaceElementFilterRef> kDomains{db::ReplaceElementFilterRef(kOld, kNew)};
const db::ElementsFilter<db::ReplaceDomainPart> kAliases{db::ReplaceDomainPart(kOld, kNew, false)};
const db::ElementsFilter<db::ReplaceDomainPart> kWithSubdomains{db::ReplaceDomainPart(kOld, kNew, true)};
const db::KeyValueFilter<db::ReplaceDomainPart, db::ReplaceDomainPath> kMailboxes(
    db::ReplaceDomainPart(kOld, kNew, false), db::ReplaceDomainPath(kOld, kNew));

// Collects what is written to std::clog while it lives.
struct ClogCapture {
  std::ostringstream text;
  std::streambuf* saved = std::clog.rdbuf(text.rdbuf());
  ~ClogCapture() { std::clog.rdbuf(saved); }
};

struct LineCase {
  const char* in;
  const char* out;  // nullptr: dropped
  const char* clog;
};

template <class L>
void expectLines(const L& filter, const std::vector<LineCase>& cases) {
  for (const LineCase& c : cases) {
    std::string line = c.in;
    ClogCapture clog;
    EXPECT_EQ(c.out != nullptr, filter(line)) << "input '" << c.in << "'";
    if (c.out != nullptr) {
      EXPECT_EQ(c.out, line) << "input '" << c.in << "'";
    }
    EXPECT_EQ(c.clog, clog.text.str()) << "input '" << c.in << "'";
  }
}

TEST(LineFilters, VirtualDomainsRecordsAreNormalised) {
  expectLines(kDomains, {{"a.example\tVIRTUAL", "b.example VIRTUAL", ""},
                         {"mail.a.example  VIRTUAL \t", "mail.a.example VIRTUAL", ""},
                         {"x  y,z  ", "x y, z", ""},
                         {"k a,b  c", "k a, b, c", ""},
                         {"k ,\t a,", "k a, ", ""},
                         {"k a.example,xa.example a.example", "k b.example, xa.example, b.example", ""},
                         {"k , ,", nullptr, ""},
                         {"a.example   ", nullptr, ""},
                         {"a.example", nullptr, "invalid key/value 'a.example'\n"},
                         {"", nullptr, "invalid key/value ''\n"}});
}

TEST(LineFilters, AliasRecordsChangeDomainAndAddressesOnly) {
  expectLines(kAliases, {{"info@a.example info@a.example", "info@b.example info@b.example", ""},
                         {"@a.example c@a.example, d@c.example", "@b.example c@b.example, d@c.example", ""},
                         {"u@mail.a.example u@mail.a.example", "u@mail.a.example u@mail.a.example", ""},
                         {"u@xa.example x@a.example.org", "u@xa.example x@a.example.org", ""},
                         {"A@A.EXAMPLE a.example", "A@A.EXAMPLE b.example", ""}});
  expectLines(kWithSubdomains, {{"u@mail.a.example mail.a.example", "u@mail.b.example mail.b.example", ""},
                                {"u@xa.example xa.example", "u@xa.example xa.example", ""}});
}

TEST(LineFilters, MailboxValuesArePathsWithoutSeparatorCheck) {
  expectLines(kMailboxes, {{"info@a.example\t\ta.example/info/ ", "info@b.example b.example/info/", ""},
                           {"u@c.example a.example.org/x/", "u@c.example b.example.org/x/", ""},
                           {"u@c.example xa.example/u/", "u@c.example xa.example/u/", ""},
                           {"u@c.example c.example/a.example/", "u@c.example c.example/a.example/", ""},
                           {"u@c.example c/u/, x  y", "u@c.example c/u/, x  y", ""},
                           {"u@mail.a.example mail.a.example/u/", "u@mail.a.example mail.a.example/u/", ""},
                           {"novalue", nullptr, "invalid key/value 'novalue'\n"}});
}

TEST(ElementRules, FollowTheCallersStringsByReference) {
  std::string from = kOld, to = kNew;
  db::ElementsFilter<db::ReplaceElementFilterRef> filter{db::ReplaceElementFilterRef(from, to)};
  std::string line = "a.example x";
  ASSERT_TRUE(filter(line));
  EXPECT_EQ("b.example x", line);
  from.swap(to);  // the same filter now undoes the rename
  ASSERT_TRUE(filter(line));
  EXPECT_EQ("a.example x", line);
}

TEST(DataStreamFilter, SameLinesInOrderWhateverTheBlockSize) {
  const std::string input =
      "zz@a.example a.example/zz/\nbroken\naa@a.example\ta.example/aa/\n\nmm@c.example c.example/mm/";
  for (size_t size = 1; size <= input.size(); ++size) {
    std::ostringstream out;
    ClogCapture clog;
    db::DataStreamFilter<decltype(kMailboxes)> stream(kMailboxes, out);
    auto consumer = stream.consumer();
    for (size_t pos = 0; pos < input.size(); pos += size)
      consumer(std::vector<char>(input.begin() + pos, input.begin() + std::min(pos + size, input.size())));
    consumer(std::vector<char>());
    EXPECT_EQ("mm@c.example c.example/mm/", stream.pending()) << "block size " << size;
    EXPECT_EQ("zz@b.example b.example/zz/\naa@b.example b.example/aa/\n", out.str());
    stream.finish();
    stream.finish();  // nothing pending any more: writes nothing
    EXPECT_EQ("zz@b.example b.example/zz/\naa@b.example b.example/aa/\nmm@c.example c.example/mm/\n",
              out.str()) << "block size " << size;
    EXPECT_EQ("invalid key/value 'broken'\ninvalid key/value ''\n", clog.text.str());
  }
}

}  // namespace
