// Fuzz target of handler name parsing and of the order handler_sort uses.
// Checks that priority and template are the text before the first "-" and
// between the first and the last one, and that the comparison is a
// consistent ordering of the names that can be split (antisymmetric and
// transitive on every triple of the input), so the sort can rely on it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "common/syscall.h"
#include "mail/handlers/handler_store.h"

namespace {

using OwnedString = zanth::UniqueCString;

constexpr size_t kMaxNames = 8;

int sign(int v) { return (v > 0) - (v < 0); }

// Checks the parts of one name; true when it splits into three.
bool checkParts(const std::string& name) {
  OwnedString priority(handler_priority(name.c_str()));
  OwnedString tmpl(handler_template(name.c_str()));
  const size_t first = name.find('-'), last = name.rfind('-');
  const bool splits = first != std::string::npos && last > first + 1;
  FUZZ_REQUIRE((priority.get() != nullptr) == splits, name);
  FUZZ_REQUIRE((tmpl.get() != nullptr) == splits, name);
  if (!splits) return false;
  FUZZ_REQUIRE(name.compare(0, first, priority.get()) == 0 &&
                   std::strlen(priority.get()) == first, name);
  FUZZ_REQUIRE(name.substr(first + 1, last - first - 1) == tmpl.get(), name);
  return true;
}

}  // namespace

// The input is a list of names, one a line.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> names;
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (size_t start = 0; start <= text.size() && names.size() < kMaxNames;) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string name = text.substr(start, end - start);
    if (name.find('\0') == std::string::npos) names.push_back(name);
    start = end + 1;
  }

  std::vector<const char*> sortable;
  for (const std::string& name : names)
    if (checkParts(name)) sortable.push_back(name.c_str());

  const size_t n = sortable.size();
  std::vector<int> order(n * n);
  for (size_t i = 0; i < n; ++i)
    for (size_t j = 0; j < n; ++j) order[i * n + j] = sign(handler_compare(sortable[i], sortable[j]));
  for (size_t i = 0; i < n; ++i) {
    FUZZ_REQUIRE(order[i * n + i] == 0, sortable[i]);
    for (size_t j = 0; j < n; ++j) {
      FUZZ_REQUIRE(order[i * n + j] == -order[j * n + i],
                   std::string(sortable[i]) + "\n" + sortable[j]);
      for (size_t k = 0; k < n; ++k) {
        if (order[i * n + j] <= 0 && order[j * n + k] <= 0)
          FUZZ_REQUIRE(order[i * n + k] <= 0 &&
                           (order[i * n + k] < 0 || (order[i * n + j] == 0 && order[j * n + k] == 0)),
                       std::string(sortable[i]) + "\n" + sortable[j] + "\n" + sortable[k]);
      }
    }
  }

  std::vector<char*> sorted;
  for (const char* name : sortable) sorted.push_back(const_cast<char*>(name));
  handler_sort(sorted.data(), sorted.size());
  for (size_t i = 1; i < sorted.size(); ++i)
    FUZZ_REQUIRE(handler_compare(sorted[i - 1], sorted[i]) <= 0,
                 std::string(sorted[i - 1]) + "\n" + sorted[i]);
  return 0;
}
