// IDN conversion on the real libidn: names with and without non-ASCII
// labels, and the procedural error conventions.
#include "common/idn.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "testing/test_support.h"

namespace {

// The procedural result as text, freed: "<null>" for a null pointer.
std::string take(char* p) {
  std::string text = p == nullptr ? "<null>" : p;
  std::free(p);
  return text;
}

TEST(Idn, ConvertsOnlyNonAsciiLabelsAndKeepsTheFailureCode) {
  EXPECT_EQ("EXAMPLE.Org", take(idn_toascii("EXAMPLE.Org")));  // all-ASCII labels pass unchanged
  EXPECT_EQ("xn--bcher-kva.Example", zanth::idn::toAscii("Bücher.Example"));
  idn_last_error = 0;
  EXPECT_EQ("<null>", take(idn_toascii("a..b")));
  EXPECT_EQ(5, idn_last_error);
  // An address whose domain fails still gives a string, and the code.
  idn_last_error = 0;
  EXPECT_EQ("u@(null)", take(idn_email_toascii("u@a..b")));
  EXPECT_EQ(5, idn_last_error);
  EXPECT_EQ("Invalid length", testing_support::thrownWhat<zanth::idn::IdnaError>(
                                  [] { zanth::idn::toAscii("a..b"); }));
}

}  // namespace
