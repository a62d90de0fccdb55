// IDN conversion on the real libidn: table-driven names, the address and
// URL forms, and the procedural error conventions.
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

struct AsciiCase {
  const char* input;
  const char* ascii;  // null: conversion fails with `code`, 0 otherwise
  int code;
};

const AsciiCase kAsciiCases[] = {
    {"EXAMPLE.Org", "EXAMPLE.Org", 0},  // all-ASCII labels pass unchanged
    {"Bücher.Example", "xn--bcher-kva.Example", 0},
    {"mail.bücher.example", "mail.xn--bcher-kva.example", 0},
    {"a..b", nullptr, 5},
};

TEST(Idn, ToAsciiTable) {
  for (const AsciiCase& c : kAsciiCases) {
    SCOPED_TRACE(c.input);
    idn_last_error = 0;
    EXPECT_EQ(c.ascii != nullptr ? c.ascii : "<null>", take(idn_toascii(c.input)));
    EXPECT_EQ(c.code, idn_last_error);
    try {
      EXPECT_EQ(c.ascii != nullptr ? c.ascii : "<IdnaError>", zanth::idn::toAscii(c.input));
    } catch (const zanth::idn::IdnaError& e) {
      EXPECT_EQ(c.code, e.code());
    }
  }
}

TEST(Idn, AddressAndUrlConvertOnlyTheDomain) {
  EXPECT_EQ("Jürgen@xn--bcher-kva.example", zanth::idn::emailToAscii("Jürgen@bücher.example"));
  EXPECT_EQ("bücher", zanth::idn::emailToAscii("bücher"));
  EXPECT_EQ("Jürgen@xn--bcher-kva.example", take(idn_email_toascii("Jürgen@bücher.example")));
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
