// IDN conversion on the real libidn: table-driven names, the address and
// URL forms, and the procedural error conventions.
#include "common/idn.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

struct AsciiCase {
  const char* input;
  const char* ascii;  // null: conversion fails with `code`
  int code;
};

const AsciiCase kAsciiCases[] = {
    {"example.org", "example.org", 0},
    {"EXAMPLE.Org", "EXAMPLE.Org", 0},  // all-ASCII labels pass unchanged
    {"Bücher.Example", "xn--bcher-kva.Example", 0},
    {"bücher.example", "xn--bcher-kva.example", 0},
    {"mail.bücher.example", "mail.xn--bcher-kva.example", 0},
    {"xn--bcher-kva.example", "xn--bcher-kva.example", 0},
    {"a..b", nullptr, 5},
    {"x234567890123456789012345678901234567890123456789012345678901234.example", nullptr, 5},
};

TEST(Idn, ToAsciiTable) {
  for (const AsciiCase& c : kAsciiCases) {
    SCOPED_TRACE(c.input);
    if (c.ascii != nullptr) {
      EXPECT_EQ(c.ascii, zanth::idn::toAscii(c.input));
      char* p = idn_toascii(c.input);
      ASSERT_NE(nullptr, p);
      EXPECT_STREQ(c.ascii, p);
      std::free(p);
    } else {
      try {
        zanth::idn::toAscii(c.input);
        ADD_FAILURE() << "no IdnaError";
      } catch (const zanth::idn::IdnaError& e) {
        EXPECT_EQ(c.code, e.code());
        EXPECT_STREQ(zanth::idn::idnaErrorText(c.code), e.what());
      }
      idn_last_error = -1;
      EXPECT_EQ(nullptr, idn_toascii(c.input));
      EXPECT_EQ(c.code, idn_last_error);
    }
  }
}

TEST(Idn, ToUtf8RoundTrip) {
  EXPECT_EQ("bücher.example", zanth::idn::toUtf8("xn--bcher-kva.example"));
  char* p = idn_toutf8("xn--bcher-kva.example");
  ASSERT_NE(nullptr, p);
  EXPECT_STREQ("bücher.example", p);
  std::free(p);
}

TEST(Idn, EmailConvertsOnlyTheDomain) {
  EXPECT_EQ("Jürgen@xn--bcher-kva.example", zanth::idn::emailToAscii("Jürgen@bücher.example"));
  EXPECT_EQ("bücher", zanth::idn::emailToAscii("bücher"));  // no "@": unchanged

  char* p = idn_email_toascii("info@bücher.example");
  ASSERT_NE(nullptr, p);
  EXPECT_STREQ("info@xn--bcher-kva.example", p);
  std::free(p);

  idn_last_error = 42;
  EXPECT_EQ(nullptr, idn_email_toascii("no-at-sign"));
  EXPECT_EQ(42, idn_last_error);

  // A failing domain still yields a string; the failure shows in the code.
  p = idn_email_toascii("u@a..b");
  ASSERT_NE(nullptr, p);
  EXPECT_STREQ("u@(null)", p);
  EXPECT_EQ(5, idn_last_error);
  std::free(p);
}

TEST(Idn, UrlKeepsEverythingButTheHost) {
  const char* url = idn_url_toascii("https://user:pw@bücher.example:8080/a/b?c=d");
  ASSERT_NE(nullptr, url);
  EXPECT_STREQ("https://user:pw@xn--bcher-kva.example:8080/a/b?c=d", url);
  url = idn_url_toascii("bücher.example");
  ASSERT_NE(nullptr, url);
  EXPECT_STREQ("xn--bcher-kva.example", url);
}

TEST(Idn, UrlWithoutHostIsReported) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(nullptr, idn_url_toascii("/only/a/path"));
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, out.find("regexec() failed: ")) << out;
}

TEST(Idn, SafeFormsEndTheProcessOnFailure) {
  EXPECT_EXIT(idn_toascii_safe("a..b"), testing::ExitedWithCode(1),
              "idn_toascii_safe\\(a\\.\\.b\\) failed: Invalid length");
  EXPECT_EXIT(idn_email_toascii_safe("u@a..b"), testing::ExitedWithCode(1),
              "idn_email_toascii_safe\\(u@a\\.\\.b\\) failed: Invalid length");
  char* p = idn_toascii_safe("bücher.example");
  ASSERT_NE(nullptr, p);
  EXPECT_STREQ("xn--bcher-kva.example", p);
  std::free(p);
}

}  // namespace
