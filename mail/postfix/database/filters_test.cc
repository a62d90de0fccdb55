// Map record filters: the record and list rules on tables of real map
// lines, the diagnostics of dropped lines, and the line cutting of the
// stream adapter across arbitrary block boundaries.
#include "mail/postfix/database/filters.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

namespace db = zanth::mail::postfix::database;

// Collects what is written to std::clog while it lives.
class ClogCapture {
 public:
  ClogCapture() : saved_(std::clog.rdbuf(text_.rdbuf())) {}
  ~ClogCapture() { std::clog.rdbuf(saved_); }
  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* saved_;
};

// A line filter case: the input line, and the output line or kDropped.
struct LineCase {
  const char* in;
  const char* out;
};
constexpr const char* kDropped = nullptr;

template <class L>
void expectLines(const L& filter, const std::vector<LineCase>& cases) {
  for (const LineCase& c : cases) {
    std::string line = c.in;
    ClogCapture clog;
    const bool kept = filter(line);
    if (c.out == kDropped) {
      EXPECT_FALSE(kept) << "input '" << c.in << "' kept as '" << line << "'";
    } else {
      EXPECT_TRUE(kept) << "input '" << c.in << "' dropped";
      EXPECT_EQ(c.out, line) << "input '" << c.in << "'";
      EXPECT_EQ("", clog.text()) << "input '" << c.in << "'";
    }
  }
}

const std::string kOld = "a.example";
const std::string kNew = "b.example";

TEST(ReplaceDomainPart, RenamesDomainAndAddressesOnly) {
  struct Case {
    const char* in;
    bool subdomains;
    const char* out;
  } cases[] = {
      {"a.example", false, "b.example"},
      {"info@a.example", false, "info@b.example"},
      {"@a.example", false, "@b.example"},
      {"mail.a.example", false, "mail.a.example"},
      {"mail.a.example", true, "mail.b.example"},
      {"info@mail.a.example", true, "info@mail.b.example"},
      {"xa.example", false, "xa.example"},
      {"xa.example", true, "xa.example"},
      {"a.example.org", true, "a.example.org"},
      {"example", false, "example"},
      {"", false, ""},
      {"A.EXAMPLE", false, "A.EXAMPLE"},
  };
  for (const Case& c : cases) {
    db::ReplaceDomainPart rule(kOld, kNew, c.subdomains);
    std::string s = c.in;
    EXPECT_TRUE(rule(s)) << c.in;
    EXPECT_EQ(c.out, s) << "input '" << c.in << "' subdomains " << c.subdomains;
  }
}

TEST(ReplaceDomainPath, ReplacesLeadingTextWithoutSeparatorCheck) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"a.example/info/", "b.example/info/"},
      {"a.example.org/x/", "b.example.org/x/"},
      {"a.example", "b.example"},
      {"xa.example/info/", "xa.example/info/"},
      {"c.example/a.example/", "c.example/a.example/"},
      {"a.exampl", "a.exampl"},
  };
  db::ReplaceDomainPath rule(kOld, kNew);
  for (const Case& c : cases) {
    std::string s = c.in;
    EXPECT_TRUE(rule(s)) << c.in;
    EXPECT_EQ(c.out, s) << "input '" << c.in << "'";
  }
}

TEST(ElementRules, FollowTheCallersStringsByReference) {
  std::string from = "a.example";
  std::string to = "b.example";
  db::ElementsFilter<db::ReplaceElementFilterRef> filter{db::ReplaceElementFilterRef(from, to)};
  std::string line = "a.example x";
  ASSERT_TRUE(filter(line));
  EXPECT_EQ("b.example x", line);
  // Swapping the names in place turns the same filter into its undo.
  from.swap(to);
  ASSERT_TRUE(filter(line));
  EXPECT_EQ("a.example x", line);
}

TEST(ValueListFilter, RejoinsElementsWithCommaBlank) {
  struct Case {
    const char* in;
    const char* out;  // nullptr: empty list, value untouched
  } cases[] = {
      {"a,b  c", "a, b, c"},
      {"a, b, c", "a, b, c"},
      {",a", "a"},
      {" ,\t a", "a"},
      {"a,", "a, "},
      {"y,z", "y, z"},
      {"a.example,a.example", "b.example, b.example"},
      {",", nullptr},
      {", ,", nullptr},
  };
  db::ValueListFilter<db::ReplaceElementFilterRef> filter{db::ReplaceElementFilterRef(kOld, kNew)};
  for (const Case& c : cases) {
    std::string value = c.in;
    const bool nonEmpty = filter(value);
    if (c.out == nullptr) {
      EXPECT_FALSE(nonEmpty) << "input '" << c.in << "'";
      EXPECT_EQ(c.in, value);
    } else {
      EXPECT_TRUE(nonEmpty) << "input '" << c.in << "'";
      EXPECT_EQ(c.out, value) << "input '" << c.in << "'";
    }
  }
}

TEST(ElementsFilter, VirtualDomainsRecords) {
  expectLines(db::ElementsFilter<db::ReplaceElementFilterRef>(db::ReplaceElementFilterRef(kOld, kNew)),
              {
                  {"a.example\tVIRTUAL", "b.example VIRTUAL"},
                  {"a.example   VIRTUAL  \t ", "b.example VIRTUAL"},
                  {"c.example VIRTUAL", "c.example VIRTUAL"},
                  {"mail.a.example VIRTUAL", "mail.a.example VIRTUAL"},
                  {"x  y,z  ", "x y, z"},
                  {"key a.example,c.example a.example", "key b.example, c.example, b.example"},
                  {"key value with  blanks", "key value, with, blanks"},
                  {"a.example , ,", kDropped},
              });
}

TEST(ElementsFilter, VirtualAliasRecords) {
  expectLines(db::ElementsFilter<db::ReplaceDomainPart>(db::ReplaceDomainPart(kOld, kNew, false)),
              {
                  {"info@a.example info@a.example", "info@b.example info@b.example"},
                  {"@a.example catch@a.example", "@b.example catch@b.example"},
                  {"sales@a.example bob@a.example,ann@c.example", "sales@b.example bob@b.example, ann@c.example"},
                  {"u@mail.a.example u@mail.a.example", "u@mail.a.example u@mail.a.example"},
                  {"u@xa.example u@a.example", "u@xa.example u@b.example"},
                  {"fwd@c.example ext@a.example.org", "fwd@c.example ext@a.example.org"},
              });
}

TEST(KeyValueFilter, VirtualMailboxRecords) {
  db::KeyValueFilter<db::ReplaceDomainPart, db::ReplaceDomainPath> filter(
      db::ReplaceDomainPart(kOld, kNew, false), db::ReplaceDomainPath(kOld, kNew));
  expectLines(filter, {
                          {"info@a.example a.example/info/", "info@b.example b.example/info/"},
                          {"info@a.example\t\ta.example/info/ \t", "info@b.example b.example/info/"},
                          {"u@mail.a.example mail.a.example/u/", "u@mail.a.example mail.a.example/u/"},
                          {"u@c.example a.example.org/x/", "u@c.example b.example.org/x/"},
                          // The value is one element: blanks and commas stay.
                          {"u@c.example c.example/u/, x  y", "u@c.example c.example/u/, x  y"},
                      });
}

TEST(LineFilters, DropMalformedRecordsAndReportOnlyMissingSeparator) {
  db::ElementsFilter<db::ReplaceElementFilterRef> elements{db::ReplaceElementFilterRef(kOld, kNew)};
  db::KeyValueFilter<db::ReplaceDomainPart, db::ReplaceDomainPath> keyValue(
      db::ReplaceDomainPart(kOld, kNew, false), db::ReplaceDomainPath(kOld, kNew));
  struct Case {
    const char* in;
    const char* clog;
  } cases[] = {
      {"a.example", "invalid key/value 'a.example'\n"},
      {"", "invalid key/value ''\n"},
      {"a.example   ", ""},
      {"a.example\t", ""},
  };
  for (const Case& c : cases) {
    for (int which = 0; which < 2; ++which) {
      std::string line = c.in;
      ClogCapture clog;
      const bool kept = which == 0 ? elements(line) : keyValue(line);
      EXPECT_FALSE(kept) << "input '" << c.in << "' filter " << which;
      EXPECT_EQ(c.clog, clog.text()) << "input '" << c.in << "' filter " << which;
    }
  }
}

// Feeds `input` to a DataStreamFilter in blocks of `size` bytes.
template <class L>
std::string feedInBlocks(const L& filter, const std::string& input, size_t size,
                         std::string* pendingBeforeFinish = nullptr) {
  std::ostringstream out;
  db::DataStreamFilter<L> stream(filter, out);
  typename db::DataStreamFilter<L>::Consumer consumer = stream.consumer();
  for (size_t pos = 0; pos < input.size(); pos += size) {
    const size_t n = std::min(size, input.size() - pos);
    consumer(std::vector<char>(input.begin() + pos, input.begin() + pos + n));
  }
  if (pendingBeforeFinish != nullptr) *pendingBeforeFinish = stream.pending();
  stream.finish();
  EXPECT_EQ("", stream.pending());
  return out.str();
}

TEST(DataStreamFilter, SameLinesInOrderWhateverTheBlockSize) {
  const std::string input =
      "zz@a.example a.example/zz/\n"
      "broken\n"
      "aa@a.example\ta.example/aa/\n"
      "\n"
      "mm@c.example   c.example/mm/  \n";
  const std::string expected =
      "zz@b.example b.example/zz/\n"
      "aa@b.example b.example/aa/\n"
      "mm@c.example c.example/mm/\n";
  db::KeyValueFilter<db::ReplaceDomainPart, db::ReplaceDomainPath> filter(
      db::ReplaceDomainPart(kOld, kNew, false), db::ReplaceDomainPath(kOld, kNew));
  for (size_t size = 1; size <= input.size(); ++size) {
    ClogCapture clog;
    EXPECT_EQ(expected, feedInBlocks(filter, input, size)) << "block size " << size;
    EXPECT_EQ("invalid key/value 'broken'\ninvalid key/value ''\n", clog.text())
        << "block size " << size;
  }
}

TEST(DataStreamFilter, LastLineWithoutLineFeedWaitsForFinish) {
  db::ElementsFilter<db::ReplaceElementFilterRef> filter{db::ReplaceElementFilterRef(kOld, kNew)};
  std::string pending;
  EXPECT_EQ("c.example VIRTUAL\nb.example VIRTUAL\n",
            feedInBlocks(filter, "c.example VIRTUAL\na.example\tVIRTUAL", 7, &pending));
  EXPECT_EQ("a.example\tVIRTUAL", pending);

  // A dropped pending line writes nothing; nothing pending writes nothing.
  ClogCapture clog;
  EXPECT_EQ("", feedInBlocks(filter, "lonely", 3, &pending));
  EXPECT_EQ("lonely", pending);
  EXPECT_EQ("invalid key/value 'lonely'\n", clog.text());
  EXPECT_EQ("c.example VIRTUAL\n", feedInBlocks(filter, "c.example VIRTUAL\n", 100, &pending));
  EXPECT_EQ("", pending);
}

TEST(DataStreamFilter, EmptyBlocksAndEmptyStreamWriteNothing) {
  db::ElementsFilter<db::ReplaceElementFilterRef> filter{db::ReplaceElementFilterRef(kOld, kNew)};
  std::ostringstream out;
  db::DataStreamFilter<db::ElementsFilter<db::ReplaceElementFilterRef>> stream(filter, out);
  stream(std::vector<char>());
  stream(std::vector<char>{'a', '.', 'e'});
  stream(std::vector<char>());
  stream(std::vector<char>{'x', 'a', 'm', 'p', 'l', 'e', ' ', 'V', '\n'});
  stream.finish();
  EXPECT_EQ("b.example V\n", out.str());
}

}  // namespace
