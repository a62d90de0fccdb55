// Configuration parsing and the process-wide lookups against the real
// /etc/orb/orb.conf inside the sandbox: values, defaults and what is logged.
#include "common/orb_conf.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>

#include "common/mail_log.h"
#include "testing/log_capture.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;

// What the module logged, as "priority:message|" each.
std::string logged() {
  std::string all;
  for (const std::string& message : captured_log()) all += message + "|";
  return all;
}

class OrbConf : public ::testing::Test {
 protected:
  // The module logs at a priority the default hook leaves out: capture all.
  void SetUp() override {
    mail_log_threshold = INT_MAX;
    reset();
  }
  void TearDown() override {
    reset();
    log_capture.reset();
    mail_log_threshold = savedThreshold_;
  }
  // No file, nothing loaded, an empty log that captures what follows.
  static void reset() {
    unlink(kOrbConfPath);
    orb_conf_unload();
    startLogCapture();
  }

 private:
  const int savedThreshold_ = mail_log_threshold;
};

struct LineCase {
  const char* text;
  const char* value;  // of PRODUCT_ROOT_D; null when the file has none
  const char* logged;
};

const LineCase kLineCases[] = {
    {"PRODUCT_ROOT_D /srv/orb", "/srv/orb", ""},
    {"PRODUCT_ROOT_D /srv/orb \n", "/srv/orb \n", ""},
    {"PRODUCT_ROOT_D /srv/orb  \n", "/srv/orb  ", ""},
    {" \t PRODUCT_ROOT_D \t two words\n", "two words", ""},
    {"PRODUCT_ROOT_D a  #b\n", "a  ", ""},
    {"PRODUCT_ROOT_D  # none\n", nullptr,
     "12:Invalid variable definition PRODUCT_ROOT_D  # none\n\nExpected a value|"},
    {"PRODUCT_ROOT_D /a\nPRODUCT_ROOT_D /b\n", "/b", ""},
    {"PRODUCT_ROOT_D=/x\nPRODUCT_ROOT_D /c\n", "/c",
     "12:Invalid variable definition PRODUCT_ROOT_D=/x\n\nExpected a space after variable name\n|"},
};

TEST_F(OrbConf, ParsesTrickyLines) {
  for (const LineCase& c : kLineCases) {
    reset();
    writeFile(kOrbConfPath, c.text);
    EXPECT_STREQ(c.value, orb_conf_get_any("PRODUCT_ROOT_D")) << c.text;
    EXPECT_EQ(c.logged, logged()) << c.text;
  }
}

TEST_F(OrbConf, MissingFileGivesDefaultsAndIsRetried) {
  EXPECT_EQ(-1, orb_conf_load());
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ("12:unable to open configuration file /etc/orb/orb.conf: No such file or directory\n|",
            logged());
  EXPECT_EQ(nullptr, orb_conf_get(ZANTH_MAILNAMES_D));
  EXPECT_STREQ("/var/qmail/mailnames", orb_conf_get_default(ZANTH_MAILNAMES_D));

  // More names than the table first holds, in descending order.
  std::string text = "PRODUCT_ROOT_D /srv/orb\n";
  for (char c = 'z'; c >= 'a'; --c) text += std::string("V_") + c + " " + c + "\n";
  writeFile(kOrbConfPath, text);
  EXPECT_STREQ("/srv/orb", orb_conf_get_default(PRODUCT_ROOT_D));
  for (char c = 'a'; c <= 'z'; ++c)
    EXPECT_STREQ(std::string(1, c).c_str(), orb_conf_get_any((std::string("V_") + c).c_str()));
  writeFile(kOrbConfPath, "PRODUCT_ROOT_D /elsewhere\n");  // read once per process
  EXPECT_STREQ("/srv/orb", orb_conf_get_default(PRODUCT_ROOT_D));
}

}  // namespace
