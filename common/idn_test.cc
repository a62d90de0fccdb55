// IDN conversion on the real libidn: names with and without non-ASCII
// labels, the address and URL forms, and the procedural error conventions.
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

TEST(Idn, ToAsciiConvertsOnlyNonAsciiLabelsAndKeepsTheFailureCode) {
  EXPECT_EQ("EXAMPLE.Org", take(idn_toascii("EXAMPLE.Org")));  // all-ASCII labels pass unchanged
  EXPECT_EQ("xn--bcher-kva.Example", zanth::idn::toAscii("Bücher.Example"));
  idn_last_error = 0;
  EXPECT_EQ("<null>", take(idn_toascii("a..b")));
  EXPECT_EQ(5, idn_last_error);
  EXPECT_EQ("Invalid length", testing_support::thrownWhat<zanth::idn::IdnaError>(
                                  [] { zanth::idn::toAscii("a..b"); }));
}

TEST(Idn, AddressAndUrlConvertOnlyTheDomain) {
  EXPECT_EQ("Jürgen@xn--bcher-kva.example", zanth::idn::emailToAscii("Jürgen@bücher.example"));
  EXPECT_EQ("bücher", zanth::idn::emailToAscii("bücher"));
  EXPECT_EQ("<null>", take(idn_email_toascii("no-at-sign")));
  // A failing domain still yields a string; the failure shows in the code.
  idn_last_error = 0;
  EXPECT_EQ("u@(null)", take(idn_email_toascii("u@a..b")));
  EXPECT_EQ(5, idn_last_error);
  EXPECT_STREQ("https://user:pw@xn--bcher-kva.example:8080/a/b?c=d",
               idn_url_toascii("https://user:pw@bücher.example:8080/a/b?c=d"));
}

TEST(Idn, SafeFormsEndTheProcessOnFailure) {
  EXPECT_EXIT(idn_toascii_safe("a..b"), testing::ExitedWithCode(1),
              "idn_toascii_safe\\(a\\.\\.b\\) failed: Invalid length");
  EXPECT_EXIT(idn_email_toascii_safe("u@a..b"), testing::ExitedWithCode(1),
              "idn_email_toascii_safe\\(u@a\\.\\.b\\) failed: Invalid length");
  EXPECT_EQ("xn--bcher-kva.example", take(idn_toascii_safe("bücher.example")));
}

}  // namespace
