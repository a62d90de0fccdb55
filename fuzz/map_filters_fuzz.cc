// Fuzz target of the map record filters fed through the streaming line
// adapter: any map dump, cut into blocks of any size, under the three
// filters of the domain rename. Checks that the output does not depend on
// the block boundaries, that every kept line is "key value" with one blank,
// and that renaming a line's domain and back gives the normalised line.
#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "mail/postfix/database/filters.h"

namespace {

namespace db = zanth::mail::postfix::database;

// The three record filters of a rename from `from` to `to`: the domains
// map, the alias map (with and without subdomains) and the mailbox map.
struct Filters {
  Filters(const std::string& from, const std::string& to, bool subdomains)
      : domains(db::ReplaceElementFilterRef(from, to)),
        aliases(db::ReplaceDomainPart(from, to, subdomains)),
        mailboxes(db::ReplaceDomainPart(from, to, subdomains), db::ReplaceDomainPath(from, to)) {}

  bool apply(int kind, std::string& line) const {
    switch (kind) {
      case 0: return domains(line);
      case 1: return aliases(line);
      default: return mailboxes(line);
    }
  }

  db::ElementsFilter<db::ReplaceElementFilterRef> domains;
  db::ElementsFilter<db::ReplaceDomainPart> aliases;
  db::KeyValueFilter<db::ReplaceDomainPart, db::ReplaceDomainPath> mailboxes;
};

// A line filter chosen at run time, for DataStreamFilter.
struct Chosen {
  const Filters* filters;
  int kind;
  bool operator()(std::string& line) const { return filters->apply(kind, line); }
};

// A domain name as the rename receives it: not empty, and free of the
// characters that separate keys, values and list elements.
std::string domainName(FuzzedDataProvider& input) {
  std::string name;
  for (char c : input.ConsumeRandomLengthString(32))
    if (!db::isListSep(c) && c != '\0') name += c;
  return name.empty() ? std::string("a.example") : name;
}

std::string filterStream(const Chosen& filter, const std::string& dump,
                         const std::vector<size_t>& cuts) {
  std::ostringstream out;
  db::DataStreamFilter<Chosen> stream(filter, out);
  auto consumer = stream.consumer();
  size_t pos = 0;
  for (size_t i = 0; pos < dump.size(); ++i) {
    size_t size = cuts.empty() ? dump.size() : cuts[i % cuts.size()];
    size = std::min(size, dump.size() - pos);
    consumer(std::vector<char>(dump.begin() + pos, dump.begin() + pos + size));
    pos += size;
  }
  stream.finish();
  return out.str();
}

void checkKeptLine(const std::string& line, int kind) {
  const size_t blank = line.find_first_of(" \t");
  FUZZ_REQUIRE(blank != std::string::npos && line[blank] == ' ', line);
  const std::string value = line.substr(blank + 1);
  FUZZ_REQUIRE(!value.empty() && value.front() != ' ' && value.front() != '\t', line);
  if (kind == 2) {  // the mailbox map keeps its value whole, trimmed
    FUZZ_REQUIRE(value.back() != ' ' && value.back() != '\t', line);
    return;
  }
  // A list value: elements joined by ", ", none holding a separator and
  // none empty but the last (a value ending in a separator ends in ", ").
  size_t start = 0;
  for (;;) {
    size_t end = value.find(", ", start);
    const std::string element = value.substr(start, end == std::string::npos ? end : end - start);
    FUZZ_REQUIRE(!element.empty() || (start > 0 && end == std::string::npos), line);
    for (char c : element) FUZZ_REQUIRE(!db::isListSep(c), line);
    if (end == std::string::npos) break;
    start = end + 2;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const int kind = input.ConsumeIntegralInRange(0, 2);
  const bool subdomains = input.ConsumeBool();
  const std::string from = domainName(input), to = domainName(input);
  std::vector<size_t> cuts(input.ConsumeIntegralInRange(1, 4));
  for (size_t& cut : cuts) cut = input.ConsumeIntegralInRange<size_t>(1, 64);
  const std::string dump = input.ConsumeRemainingBytesAsString();

  const Filters rename(from, to, subdomains), back(to, from, subdomains),
      same(from, from, subdomains);
  const std::string whole = filterStream(Chosen{&rename, kind}, dump, {});
  FUZZ_REQUIRE(whole == filterStream(Chosen{&rename, kind}, dump, cuts),
               "output differs when the dump is cut into blocks");

  std::istringstream kept(whole);
  for (std::string line; std::getline(kept, line);) checkKeptLine(line, kind);

  // Line by line: renamed and renamed back equals the normalised record
  // whenever the new name did not occur in it.
  std::istringstream lines(dump);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(to) != std::string::npos) continue;
    std::string normal = line, renamed = line;
    const bool keptNormal = same.apply(kind, normal);
    const bool keptRenamed = rename.apply(kind, renamed);
    FUZZ_REQUIRE(keptNormal == keptRenamed, line);
    if (!keptRenamed) continue;
    FUZZ_REQUIRE(back.apply(kind, renamed), line);
    FUZZ_REQUIRE(renamed == normal, line + "\nback: " + renamed + "\nnormal: " + normal);
  }
  return 0;
}
