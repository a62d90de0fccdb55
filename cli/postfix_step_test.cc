// The Postfix step of the real mxkeep_domain_rename binary in the sandbox
// with the real postmap: a rename, and real faults (an unreadable map, a
// missing mail directory, a refused rebuild, a failed undo) with what they
// leave behind and the exact output.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;
const char* const kMaps[] = {kVirtualDomainsMap, kVirtualMap, kVmailboxMap};
const std::string kMailNames = "/var/qmail/mailnames/";
const std::string kRenameFailed =
    "Fatal error: boost::filesystem::filesystem_error(boost::filesystem::rename: No such file or directory: "
    "\"/var/qmail/mailnames/a.example\", \"/var/qmail/mailnames/b.example\")\n";
const std::string kConfigurationError = "Fatal error: zanth::mail::postfix::PostfixConfigurationError(";

class PostfixStep : public ::testing::Test {
 protected:
  void SetUp() override { makeSampleMailLayer(); }

  // Runs the rename; expects a failure with `text` on both streams, the
  // maps as `expected` gives them and the directory untouched.
  static void expectFailure(const std::string& text, decltype(&sampleBefore) expected = sampleBefore) {
    const RunResult r = runTool({"a.example", "b.example"});
    EXPECT_EQ(1, r.exitCode());
    EXPECT_EQ(text, r.err);
    EXPECT_EQ(text, r.out);
    for (const char* map : kMaps) EXPECT_EQ(expected(map), dumpMap(map)) << map;
    EXPECT_FALSE(pathExists(kMailNames + "b.example"));
    EXPECT_FALSE(pathExists("/var/spool/postfix/zanth/vmailbox"));
  }
};

TEST_F(PostfixStep, RenamesMapsAndDirectory) {
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("", r.err + r.out);
  for (const char* map : kMaps) EXPECT_EQ(sampleAfter(map), dumpMap(map)) << map;
  EXPECT_EQ("b.example/info/", queryMap(kVmailboxMap, "info@b.example"));
  EXPECT_EQ("info@b.example, bob@c.example", queryMap(kVirtualMap, "sales@b.example"));
  for (boost::filesystem::directory_iterator it("/var/spool/postfix/zanth"), end; it != end; ++it)
    EXPECT_EQ(".db", it->path().extension()) << "text source left: " << it->path();
  EXPECT_EQ("Subject: kept\n", readFile(kMailNames + "b.example/info/Maildir/new/1.eml"));
  EXPECT_FALSE(pathExists(kMailNames + "a.example"));
}

TEST_F(PostfixStep, AsciiNamesAndTheConfiguredRoot) {
  ASSERT_EQ(0, shell("mkdir /var/mail-store && mv " + kMailNames + "a.example /var/mail-store").exitCode());
  writeFile("/etc/orb/orb.conf", "ZANTH_MAILNAMES_D\t/var/mail-store\n");
  const RunResult r = runTool({"--", "a.example", "b\xc3\xbc" "cher.example"});
  ::unlink("/etc/orb/orb.conf");
  EXPECT_EQ(0, r.exitCode()) << r.err;
  EXPECT_EQ("xn--bcher-kva.example/info/", queryMap(kVmailboxMap, "info@xn--bcher-kva.example"));
  EXPECT_TRUE(pathExists("/var/mail-store/xn--bcher-kva.example/info"));
}

TEST_F(PostfixStep, UnreadableVmailboxPutsTheOtherMapsBack) {
  ASSERT_TRUE(boost::filesystem::remove("/var/spool/postfix/zanth/vmailbox.db"));
  const RunResult r = runTool({"a.example", "b.example"});
  const std::string text = kConfigurationError +
                           "postmap: fatal: open database /var/spool/postfix/zanth/vmailbox.db: "
                           "No such file or directory\n)\n";
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(text, r.err);
  EXPECT_EQ(text, r.out);
  EXPECT_EQ(sampleBefore(kVirtualDomainsMap), dumpMap(kVirtualDomainsMap));
  EXPECT_EQ(sampleBefore(kVirtualMap), dumpMap(kVirtualMap));
  EXPECT_TRUE(pathExists(kMailNames + "a.example/info"));
  EXPECT_FALSE(pathExists("/var/spool/postfix/zanth/vmailbox.db"));
}

TEST_F(PostfixStep, MissingMailDirectoryUnwindsAllThreeMaps) {
  boost::filesystem::remove_all(kMailNames + "a.example");
  expectFailure(kRenameFailed);
}

TEST_F(PostfixStep, RefusedRebuildReportsPostmapsOwnText) {
  {
    PostmapStandIn standIn("[ \"$1\" = " + std::string(kVirtualMap) +
                           " ] && { echo 'postmap: fatal: refused' >&2; exit 1; }\nexec \"$REAL\" \"$@\"");
    expectFailure(kConfigurationError + "postmap: fatal: refused\n)\n");
  }
  // A silent failure; the warnings of the dumps before it are not its text.
  PostmapStandIn silent("[ \"$1\" = -s ] && { \"$REAL\" \"$@\"; r=$?; echo 'postmap: warning: x' >&2; exit $r; }\n"
                        "[ \"$1\" = " + std::string(kVirtualMap) + " ] && exit 3\nexec \"$REAL\" \"$@\"");
  expectFailure(kConfigurationError + "unknown error)\n");
}

TEST_F(PostfixStep, FailedUndoPrintsTheCriticalMessageFirst) {
  boost::filesystem::remove_all(kMailNames + "a.example");
  // Each virtual_domains rebuild after the first is refused: its undo fails.
  PostmapStandIn standIn("[ \"$1\" = " + std::string(kVirtualDomainsMap) +
                         " ] && { [ -e /run/rebuilt ] && exit 1; touch /run/rebuilt; }\nexec \"$REAL\" \"$@\"");
  expectFailure(
      "CRITICAL ERROR: Unable to properly restore Postfix Virtual Domains Database used by Zanth.\n"
      "Mail system may be not usable at the moment and it cannot be repaired automatically.\n"
      "Constact Quillon support to resolve this issue.\n" + kRenameFailed,
      [](const std::string& map) { return map == kVirtualDomainsMap ? sampleAfter(map) : sampleBefore(map); });
  ::unlink("/run/rebuilt");
}

}  // namespace
