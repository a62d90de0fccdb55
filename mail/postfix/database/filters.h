// Map record filters: the line filters that rewrite one text record of a
// Postfix map dump ("key<blanks>value"), the element rules they apply to keys
// and list elements, and the adapter that cuts a child's output blocks into
// lines. Filters hold references to strings the caller owns and never throw
// for bad input: a malformed record is reported on std::clog and dropped.
#ifndef MXKEEP_MAIL_POSTFIX_DATABASE_FILTERS_H
#define MXKEEP_MAIL_POSTFIX_DATABASE_FILTERS_H

#include <boost/algorithm/string/finder.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/bind/bind.hpp>
#include <boost/function.hpp>
#include <boost/range/iterator_range.hpp>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <ostream>
#include <string>
#include <vector>

#include "process/pipe.h"

namespace zanth {
namespace mail {
namespace postfix {
namespace database {

namespace detail {

// The separator set, taken once from the C library's isspace() plus the
// comma, so that the per-character test is a table look-up.
struct ListSepTable {
  ListSepTable() {
    for (int c = 0; c < 256; ++c) sep[c] = c == ',' || std::isspace(c) != 0;
  }
  bool sep[256];
};
inline const ListSepTable kListSep;

// Scratch strings reused from record to record, so that rewriting a large
// map does not allocate for every record. One per role.
enum ScratchSlot { kKeyScratch, kValueScratch, kListScratch, kElementScratch, kScratchSlots };
inline std::string& scratch(ScratchSlot slot) {
  thread_local std::string buffers[kScratchSlots];
  return buffers[slot];
}

}  // namespace detail

// isListSep - true for a separator of value list elements: a comma or any
// character isspace() accepts. A run of separators counts as one.
inline bool isListSep(char c) { return detail::kListSep.sep[static_cast<unsigned char>(c)]; }

// ReplaceElementFilterRef - an element equal to `from` (bytewise) becomes
// `to`; anything else is left alone. Always true.
class ReplaceElementFilterRef final {
 public:
  ReplaceElementFilterRef(const std::string& from, const std::string& to)
      : from_(from), to_(to) {}

  bool operator()(std::string& element) const {
    if (element == from_) element = to_;
    return true;
  }

 private:
  const std::string& from_;
  const std::string& to_;
};

// ReplaceDomainPart - renames the domain `from` to `to` in a bare domain or
// an address: "from" and "local@from" change, "x.from" only when subdomains
// is set, "xfrom" never. Always true.
class ReplaceDomainPart final {
 public:
  ReplaceDomainPart(const std::string& from, const std::string& to, bool subdomains)
      : from_(from), to_(to), subdomains_(subdomains) {}

  bool operator()(std::string& s) const {
    const size_t n = from_.size();
    if (s.size() < n || s.compare(s.size() - n, n, from_) != 0) return true;
    if (s.size() == n) {
      s = to_;
      return true;
    }
    const char before = s[s.size() - n - 1];
    if (before == '@' || (before == '.' && subdomains_)) s.replace(s.size() - n, n, to_);
    return true;
  }

 private:
  const std::string& from_;
  const std::string& to_;
  const bool subdomains_;
};

// ReplaceDomainPath - a value that begins with fromPath gets that beginning
// replaced by toPath. No separator has to follow the prefix, so "a.x" also
// turns "a.x.org/m/" into "b.x.org/m/" when renaming a.x to b.x: maps rely
// on the text rule, not on path components. Always true.
class ReplaceDomainPath final {
 public:
  ReplaceDomainPath(const std::string& fromPath, const std::string& toPath)
      : fromPath_(fromPath), toPath_(toPath) {}

  bool operator()(std::string& value) const {
    if (value.compare(0, fromPath_.size(), fromPath_) == 0)
      value.replace(0, fromPath_.size(), toPath_);
    return true;
  }

 private:
  const std::string& fromPath_;
  const std::string& toPath_;
};

// ValueListFilter - applies rule F to each element of a list value and
// rejoins the elements with ", ". The joiner goes in front of an element
// only when the text so far is not empty, so leading separators vanish.
// Returns false, value untouched, when the rebuilt list is empty.
template <class F>
class ValueListFilter final {
 public:
  explicit ValueListFilter(const F& rule) : rule_(rule) {}

  bool operator()(std::string& value) const {
    using SplitIterator = boost::split_iterator<std::string::iterator>;
    std::string& result = detail::scratch(detail::kListScratch);
    std::string& element = detail::scratch(detail::kElementScratch);
    result.clear();
    for (SplitIterator it = boost::make_split_iterator(
             value, boost::token_finder([](char c) { return isListSep(c); },
                                        boost::algorithm::token_compress_on));
         it != SplitIterator(); ++it) {
      element.assign(it->begin(), it->end());
      rule_(element);
      if (!result.empty()) result += ", ";
      result += element;
    }
    if (result.empty()) return false;
    value.assign(result);
    return true;
  }

 private:
  F rule_;
};

namespace detail {

inline bool isBlank(char c) { return c == ' ' || c == '\t'; }

// filterRecord - the steps every line filter shares: split the record at
// the first blank or tab, apply keyRule to the key and valueRule to the
// trimmed value, and write back "key value". A kept record is always
// normalised this way, whether or not a rule changed anything.
template <class KeyRule, class ValueRule>
bool filterRecord(std::string& line, const KeyRule& keyRule, const ValueRule& valueRule) {
  const size_t size = line.size();
  size_t blank = 0;
  while (blank < size && !isBlank(line[blank])) ++blank;
  if (blank == size) {
    std::clog << "invalid key/value '" << line << "'" << std::endl;
    return false;
  }
  std::string& key = scratch(kKeyScratch);
  key.assign(line, 0, blank);
  if (!keyRule(key)) return false;
  size_t first = blank;
  while (first < size && isBlank(line[first])) ++first;
  if (first == size) return false;
  size_t end = size;
  while (isBlank(line[end - 1])) --end;
  std::string& value = scratch(kValueScratch);
  value.assign(line, first, end - first);
  if (!valueRule(value)) return false;
  line.assign(key);
  line += ' ';
  line += value;
  return true;
}

}  // namespace detail

// ElementsFilter - line filter applying rule F to the key and to every
// element of the value list. True keeps the (rewritten) line.
template <class F>
class ElementsFilter final {
 public:
  explicit ElementsFilter(const F& rule) : rule_(rule), values_(rule) {}

  bool operator()(std::string& line) const { return detail::filterRecord(line, rule_, values_); }

 private:
  F rule_;
  ValueListFilter<F> values_;
};

// KeyValueFilter - line filter applying KF to the key and VF to the whole
// value as one element. True keeps the (rewritten) line.
template <class KF, class VF>
class KeyValueFilter final {
 public:
  KeyValueFilter(const KF& keyRule, const VF& valueRule)
      : keyRule_(keyRule), valueRule_(valueRule) {}

  bool operator()(std::string& line) const {
    return detail::filterRecord(line, keyRule_, valueRule_);
  }

 private:
  KF keyRule_;
  VF valueRule_;
};

// DataStreamFilter - cuts blocks of a byte stream into lines, passes each
// complete line to the line filter L and writes the kept ones to `out` in
// the order received, each ended by a line feed. Lines are not flushed one
// by one: a flush per record is a system call per record, which on a map
// of a million records costs more than the filtering; the owner closes the
// stream before anything reads it. Text after the last line feed stays
// pending until finish(). Lives for one stream; the stream's errors are
// left to its owner.
//
//   DataStreamFilter<ElementsFilter<ReplaceDomainPart>> f(filter, file);
//   pipe.setOutput(kStreamPipe, f.consumer());   // fed while the child runs
//   pipe.run();
//   f.finish();                                  // the last, unterminated line
template <class L>
class DataStreamFilter final {
 public:
  DataStreamFilter(const L& filter, std::ostream& out) : filter_(filter), out_(out) {}
  DataStreamFilter(const DataStreamFilter&) = delete;
  DataStreamFilter& operator=(const DataStreamFilter&) = delete;

  void operator()(const std::vector<char>& block) {
    std::vector<char>::const_iterator start = block.begin();
    for (;;) {
      std::vector<char>::const_iterator lf = std::find(start, block.end(), '\n');
      if (lf == block.end()) break;
      pending_.append(start, lf);
      filterPending();
      pending_.clear();
      start = lf + 1;
    }
    pending_.append(start, block.end());
  }

  // consumer - a callback feeding this object; it must outlive the callback.
  process::BlockConsumer consumer() {
    return boost::bind(&DataStreamFilter::operator(), this, boost::placeholders::_1);
  }

  // finish - filters and writes a pending last line without line feed.
  void finish() {
    if (!pending_.empty()) filterPending();
    pending_.clear();
  }

  const std::string& pending() const { return pending_; }

  // changed - how many records the filter changed or dropped so far; a
  // record only rewritten in its normal form (blanks) does not count.
  size_t changed() const { return changed_; }

 private:
  void filterPending() {
    // The copy reuses its buffer: no allocation per record.
    before_.assign(pending_);
    const bool keep = filter_(pending_);
    if (!keep || !sameButBlanks(pending_, before_)) ++changed_;
    if (keep) writeLine();
  }

  static bool sameButBlanks(const std::string& a, const std::string& b) {
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    size_t i = 0, j = 0;
    for (;;) {
      while (i < a.size() && blank(a[i])) ++i;
      while (j < b.size() && blank(b[j])) ++j;
      if (i == a.size() || j == b.size()) return i == a.size() && j == b.size();
      if (a[i++] != b[j++]) return false;
    }
  }

  void writeLine() {
    out_.write(pending_.data(), static_cast<std::streamsize>(pending_.size()));
    out_.put('\n');
  }

  L filter_;
  std::ostream& out_;
  std::string pending_;
  std::string before_;
  size_t changed_ = 0;
};

}  // namespace database
}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_DATABASE_FILTERS_H
