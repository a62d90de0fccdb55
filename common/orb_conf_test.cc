// Configuration parsing on real files, the table's growth and ordering, and
// the process-wide lookups against /etc/orb/orb.conf inside the sandbox.
#include "common/orb_conf.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "common/mail_log.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

using testing_support::runInChild;
using testing_support::TempDir;
using testing_support::writeFile;

// Collects what the module logs, as "priority:message|".
std::string g_logged;

void capture_log(int priority, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  g_logged += std::to_string(priority) + ":" + text + "|";
}

class ConfTable : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_hook_ = mail_log;
    mail_log = capture_log;
    g_logged.clear();
    table_ = conf_new();
    ASSERT_NE(nullptr, table_);
  }
  void TearDown() override {
    conf_free(table_);
    mail_log = saved_hook_;
  }

  TempDir dir_;
  conf_table* table_ = nullptr;
  mail_log_fn saved_hook_ = nullptr;
};

std::string shown(const char* value) {
  return value == nullptr ? "(none)" : "'" + std::string(value) + "'";
}

struct LineCase {
  const char* text;
  const char* value;  // of PRODUCT_ROOT_D; null when the file has none
  const char* logged;
};

const LineCase kLineCases[] = {
    {"PRODUCT_ROOT_D /srv/orb\n", "/srv/orb", ""},
    {"PRODUCT_ROOT_D /srv/orb", "/srv/orb", ""},
    {"PRODUCT_ROOT_D /srv/orb \n", "/srv/orb \n", ""},
    {"PRODUCT_ROOT_D /srv/orb  \n", "/srv/orb  ", ""},
    {"PRODUCT_ROOT_D /srv/orb   \n", "/srv/orb   \n", ""},
    {"PRODUCT_ROOT_D nginx\r\n", "nginx\r\n", ""},
    {" \t PRODUCT_ROOT_D \t two words\n", "two words", ""},
    {"PRODUCT_ROOT_D a#b\n", "a", ""},
    {"PRODUCT_ROOT_D a #b\n", "a", ""},
    {"PRODUCT_ROOT_D a  #b\n", "a  ", ""},
    {"# PRODUCT_ROOT_D /x\n\n   \n", nullptr, ""},
    {"PRODUCT_ROOT_D=/x\n", nullptr,
     "12:Invalid variable definition PRODUCT_ROOT_D=/x\n\nExpected a space after variable name\n|"},
    {"PRODUCT_ROOT_D", nullptr,
     "12:Invalid variable definition PRODUCT_ROOT_D\nExpected a space after variable name\n|"},
    {"PRODUCT_ROOT_D  # none\n", nullptr,
     "12:Invalid variable definition PRODUCT_ROOT_D  # none\n\nExpected a value|"},
    {"PRODUCT_ROOT_D\n", nullptr, "12:Invalid variable definition PRODUCT_ROOT_D\n\nExpected a value|"},
    {"PRODUCT_ROOT_D /a\nPRODUCT_ROOT_D /b\n", "/b", ""},
    {"BAD-NAME x\nPRODUCT_ROOT_D /c\n", "/c",
     "12:Invalid variable definition BAD-NAME x\n\nExpected a space after variable name\n|"},
};

TEST_F(ConfTable, ParsesTrickyLines) {
  for (const LineCase& c : kLineCases) {
    conf_table* table = conf_new();
    g_logged.clear();
    writeFile(dir_ / "orb.conf", c.text);
    EXPECT_EQ(0, conf_read((dir_ / "orb.conf").c_str(), table)) << c.text;
    const char* value = conf_get("PRODUCT_ROOT_D", table);
    EXPECT_EQ(shown(c.value), shown(value)) << c.text;
    EXPECT_EQ(c.logged, g_logged) << c.text;
    conf_free(table);
  }
}

TEST_F(ConfTable, MissingFileFailsWithErrnoAndQuietLog) {
  std::string path = dir_ / "absent.conf";
  EXPECT_EQ(-1, conf_read(path.c_str(), table_));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ("12:unable to open configuration file " + path + ": No such file or directory\n|",
            g_logged);
}

TEST_F(ConfTable, GrowsPastFirstEntriesAndKeepsOrder) {
  // Added in descending order, so the table must sort for bsearch to work.
  for (int i = 99; i >= 0; --i) {
    std::string name = "VAR_" + std::to_string(1000 + i);
    ASSERT_EQ(0, conf_add(name.c_str(), std::to_string(i).c_str(), table_));
  }
  ASSERT_EQ(0, conf_add("VAR_1050", "replaced", table_));
  EXPECT_EQ(100u, table_->count);
  EXPECT_EQ(0, table_->sorted);
  EXPECT_STREQ("7", conf_get("VAR_1007", table_));  // linear lookup while unsorted
  conf_sort(table_);
  EXPECT_EQ(1, table_->sorted);
  for (int i = 0; i < 100; ++i) {
    std::string name = "VAR_" + std::to_string(1000 + i);
    EXPECT_STREQ(i == 50 ? "replaced" : std::to_string(i).c_str(), conf_get(name.c_str(), table_));
  }
  EXPECT_EQ(nullptr, conf_get("VAR_0999", table_));
}

// The runtime configuration reads the real file; every case starts unloaded.
class OrbConf : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(kOrbConfPath);
    orb_conf_unload();
  }
  void TearDown() override { SetUp(); }
};

TEST_F(OrbConf, MissingFileGivesDefaultsAndIsRetried) {
  for (int i = ORB_CONF_MIN_VAR; i <= ORB_CONF_MAX_VAR; ++i) {
    EXPECT_EQ(nullptr, orb_conf_get(i)) << i;
    EXPECT_NE(nullptr, orb_conf_get_default(i)) << i;
  }
  EXPECT_STREQ("/var/qmail/mailnames", orb_conf_get_default(ZANTH_MAILNAMES_D));
  EXPECT_STREQ("/opt/orb", orb_conf_get_default(PRODUCT_ROOT_D));
  EXPECT_STREQ("/var/www/vhosts", orb_conf_get_default(HTTPD_VHOSTS_D));
  EXPECT_STREQ("/var/lib/orb/dumps", orb_conf_get_by_name("DUMP_D"));
  EXPECT_EQ(nullptr, orb_conf_get_default(ORB_CONF_MAX_VAR + 1));
  EXPECT_EQ(nullptr, orb_conf_get_any("PRODUCT_ROOT_D"));

  // A failed load is not remembered: the file is read once it appears.
  writeFile(kOrbConfPath, "PRODUCT_ROOT_D /srv/orb\n");
  EXPECT_STREQ("/srv/orb", orb_conf_get_default(PRODUCT_ROOT_D));
}

TEST_F(OrbConf, FileValuesWinAndAreReadOnce) {
  writeFile(kOrbConfPath,
            "ZANTH_MAILNAMES_D /srv/mail\nLOCAL_EXTRA yes\n_MAX_POSSIBLE_ORB_CONF_VAR_NAME m\n");
  EXPECT_STREQ("/srv/mail", orb_conf_get(ZANTH_MAILNAMES_D));
  EXPECT_STREQ("/srv/mail", orb_conf_get_by_name("ZANTH_MAILNAMES_D"));
  EXPECT_STREQ("/opt/orb", orb_conf_get_default(PRODUCT_ROOT_D));
  EXPECT_STREQ("yes", orb_conf_get_any("LOCAL_EXTRA"));
  EXPECT_STREQ("m", orb_conf_get_any("_MAX_POSSIBLE_ORB_CONF_VAR_NAME"));

  writeFile(kOrbConfPath, "ZANTH_MAILNAMES_D /elsewhere\n");
  EXPECT_STREQ("/srv/mail", orb_conf_get_default(ZANTH_MAILNAMES_D));
}

TEST_F(OrbConf, ByNameSearchesLowerSentinelOnly) {
  writeFile(kOrbConfPath, "_MAX_POSSIBLE_ORB_CONF_VAR_NAME set\nLOCAL_EXTRA yes\n");
  EXPECT_STREQ("_MIN_POSSIBLE_ORB_CONF_VAR_VALUE",
               orb_conf_get_by_name("_MIN_POSSIBLE_ORB_CONF_VAR_NAME"));
  for (const char* name : {"_MAX_POSSIBLE_ORB_CONF_VAR_NAME", "LOCAL_EXTRA"}) {
    auto r = runInChild([name] { return orb_conf_get_by_name(name) == nullptr ? 0 : 3; });
    std::string expected = std::string("variable '") + name +
                           "' isn't found neither in /etc/orb/orb.conf nor in compile-time "
                           "defaults\n";
    EXPECT_EQ(0, r.exitCode()) << name;
    EXPECT_EQ(expected, r.out) << name;
    EXPECT_EQ(expected, r.err) << name;
  }
}

}  // namespace
