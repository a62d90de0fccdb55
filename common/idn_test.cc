// IDN conversion on the real libidn: the procedural forms' conventions
// that the tool's own tests do not reach.
#include "common/idn.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

// The procedural result as text, freed: "<null>" for a null pointer.
std::string take(char* p) {
  std::string text = p == nullptr ? "<null>" : p;
  std::free(p);
  return text;
}

TEST(Idn, AsciiNamesPassUnchangedAndAFailingAddressStillGivesAString) {
  EXPECT_EQ("EXAMPLE.Org", take(idn_toascii("EXAMPLE.Org")));
  idn_last_error = 0;
  EXPECT_EQ("u@(null)", take(idn_email_toascii("u@a..b")));
  EXPECT_EQ(5, idn_last_error);
}

}  // namespace
