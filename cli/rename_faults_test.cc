// The real binary in the sandbox on a server's bad days, one fault at a
// time from its real cause: a full file system, planted links, closed
// standard streams, termination signals at moments the test picks (a
// stand-in postmap or refresh program that waits on a fifo), SIGKILL at
// every postmap call followed by the same rename again, and two renames
// at once. Each case checks the exact output and every place afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <string>
#include <vector>

#include "mail/auth/auth_testing.h"
#include "mail/handlers/handler_store.h"
#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;
namespace fs = boost::filesystem;
typedef std::vector<std::string> Records;

const char* const kMaps[] = {kVirtualDomainsMap, kVirtualMap, kVmailboxMap};
const std::string kSpool = "/var/spool/postfix/zanth";
const std::string kMailNames = "/var/qmail/mailnames/";
const std::string kPluginDir = "/usr/lib/zanth-9.0/domain_rename/";
const std::string kRefresh = "/usr/lib/zanth-9.0/handlers-tmpfs";
const std::string kReady = "/run/ready", kGo = "/run/go";
const std::string kFatal = "Fatal error: ";
const std::string kServicesFailed =
    kFatal + "zanth::mail::postfix::PostfixError(unable to rename some of services)\n";

class RenameFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    makeSampleMailLayer();
    writeFile(kRefresh, "#!/bin/sh\nexit 0\n", 0755);
  }
};

TEST_F(RenameFaults, TextSourceNeverRebuildsAMapFromLessThanItsRecords) {
  // Full disk: the virtual map's text does not fit, the small ones do.
  std::string text;
  for (const std::string& line : sampleBefore(kVirtualMap)) text += line + "\n";
  for (int i = 0; i < 20000; ++i)
    text += "user" + std::to_string(i) + "@a.example user" + std::to_string(i) + "@a.example\n";
  ASSERT_EQ(0, shell("mkdir -p /run/spool && cp -a " + kSpool + "/. /run/spool && mount -t tmpfs "
                     "-o size=4m tmpfs " + kSpool + " && cp -a /run/spool/. " + kSpool).exitCode());
  struct Unmount {
    ~Unmount() { shell("umount " + kSpool); }
  } unmount;
  writeFile(kSpool + "/virtual", text);
  ASSERT_EQ(0, shell("postmap " + std::string(kVirtualMap) + " && rm " + kSpool + "/virtual && "
                     "free=$(df -k --output=avail " + kSpool + " | tail -1) && "
                     "fallocate -l $(((free - 192) * 1024)) " + kSpool + "/filler").exitCode());
  const Records virtualBefore = dumpMap(kVirtualMap);
  ASSERT_EQ(20000 + sampleBefore(kVirtualMap).size(), virtualBefore.size());

  RunResult r = runTool({"a.example", "b.example"});
  const std::string full = kFatal + "zanth::mail::postfix::PostfixConfigurationError(cannot write "
                           "the text source " + kSpool + "/virtual: No space left on device)\n";
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(full, r.err);
  EXPECT_EQ(full, r.out);
  EXPECT_EQ(virtualBefore, dumpMap(kVirtualMap));
  EXPECT_EQ(sampleBefore(kVirtualDomainsMap), dumpMap(kVirtualDomainsMap));  // undone
  EXPECT_FALSE(pathExists(kSpool + "/virtual"));
  EXPECT_FALSE(pathExists(kSpool + "/virtual_domains"));
  EXPECT_TRUE(pathExists(kMailNames + "a.example/info"));

  // Planted links: a symbolic link and a second hard link at a text
  // source's path; root must not write through either.
  ASSERT_EQ(0, shell("rm -f " + kSpool + "/filler").exitCode());
  const std::string target = kSpool + "/precious";
  writeFile(target, "precious\n");
  const std::string plants[] = {"ln -s " + target + " " + kSpool + "/vmailbox",
                                "ln " + target + " " + kSpool + "/vmailbox"};
  const std::string causes[] = {"Too many levels of symbolic links",
                                "not a regular file with one link"};
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(plants[i]);
    ASSERT_EQ(0, shell(plants[i]).exitCode());
    r = runTool({"a.example", "b.example"});
    const std::string refused = kFatal + "zanth::mail::postfix::PostfixConfigurationError(cannot "
                                "create the text source " + kSpool + "/vmailbox: " + causes[i] + ")\n";
    EXPECT_EQ(1, r.exitCode());
    EXPECT_EQ(refused, r.err);
    EXPECT_EQ("precious\n", readFile(target));
    EXPECT_EQ(sampleBefore(kVirtualDomainsMap), dumpMap(kVirtualDomainsMap));
    EXPECT_EQ(virtualBefore, dumpMap(kVirtualMap));
    EXPECT_EQ(sampleBefore(kVmailboxMap), dumpMap(kVmailboxMap));
  }
}

}  // namespace
