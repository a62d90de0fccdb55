// The rename's trail in a real log daemon's file (rsyslog in the sandbox,
// testing/syslog_daemon.sh): the lines of a success, a late failure and a
// refusal, the streams unchanged beside them, the check silent, and a
// daemon that is gone or stopped reading never changing the rename.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <string>
#include <vector>

#include "testing/rename_testing.h"

namespace {

using namespace testing_support;
using namespace rename_testing;

const std::string kDaemon = sourcePath("testing/syslog_daemon.sh");
const std::string kLog = "/var/log/mail.log";

class RenameTrail : public SampleLayout {
 protected:
  void SetUp() override {
    SampleLayout::SetUp();
    ASSERT_EQ(0, shell(kDaemon + " start").exitCode());
  }
  void TearDown() override { shell(kDaemon + " stop"); }

  // The lines a command logged, once its last one (holding `last`) is
  // there, with "[pid]" taken out of the tag.
  Records logged(const char* ident, const std::string& last) {
    EXPECT_EQ(0, shell(kDaemon + " wait '" + last + "'").exitCode());
    Records result;
    const std::regex tag(std::string(" ") + ident + R"(\[[0-9]+\]:)");
    for (const std::string& line : lines(readFile(kLog)))
      if (std::regex_search(line, tag))
        result.push_back(std::regex_replace(line, tag, std::string(" ") + ident + ":"));
    return result;
  }
};

// Records of map that a rename of a.example changes or drops.
std::string changedIn(const char* map) {
  size_t n = 0;
  const Records after = sampleAfter(map);
  for (const std::string& record : sampleBefore(map))
    if (std::find(after.begin(), after.end(), record) == after.end()) ++n;
  return std::to_string(n);
}

const std::string kTool = "mxkeep_domain_rename: ";

TEST_F(RenameTrail, ASuccessStartsLogsEachStepAndEnds) {
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  EXPECT_EQ("", r.err + r.out);
  EXPECT_EQ((Records{
                "notice " + kTool +
                    "rename started old=a.example new=b.example old_ascii=a.example "
                    "new_ascii=b.example",
                "info " + kTool + "rename step step=postfix result=ok virtual_domains=" +
                    changedIn(kVirtualDomainsMap) + " virtual=" + changedIn(kVirtualMap) +
                    " vmailbox=" + changedIn(kVmailboxMap) + " mail_directory=moved",
                "info " + kTool + "rename step step=auth_database result=ok",
                "info " + kTool + "rename step step=plugins result=ok",
                "info " + kTool + "rename step step=handlers result=ok",
                "notice " + kTool + "rename ended status=0 old=a.example new=b.example",
            }),
            logged("mxkeep_domain_rename", "rename ended"));

  // The check is read-only and may run often: it logs nothing.
  EXPECT_EQ(0, runProgram({MXKEEP_CHECK_PATH, "b.example"}).exitCode());
  EXPECT_EQ(0, shell("logger -u /dev/log -p mail.info check-done").exitCode());
  EXPECT_EQ(Records{}, logged("mxkeep_domain_check", "check-done"));
}

TEST_F(RenameTrail, ALateFailureLogsItsDiagnosticsTheUndoAndWherePlacesStand) {
  installPlugin("test_plugins/failing.so");
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(1, r.exitCode());
  // The streams carry exactly what they carry without a log daemon.
  EXPECT_EQ("plugin 'failing.so' failed with status '1'\n" + kServicesFailed, r.err);
  EXPECT_EQ(kServicesFailed, r.out);
  const Records got = logged("mxkeep_domain_rename", "rename ended");
  ASSERT_EQ(8u, got.size()) << ::testing::PrintToString(got);
  EXPECT_EQ("info " + kTool + "rename step step=auth_database result=ok", got[2]);
  EXPECT_EQ((Records{
                "err " + kTool + "plugin 'failing.so' failed with status '1'",
                "err " + kTool +
                    "rename step step=plugins result=failed "
                    "error=\"unable to rename some of services\"",
                "warning " + kTool + "rename undone step=postfix result=ok",
                "err " + kTool + kServicesFailed.substr(0, kServicesFailed.size() - 1),
                "err " + kTool +
                    "rename ended status=1 old=a.example new=b.example places=\"b.example: the "
                    "places disagree (found in: virtual_domains, virtual, vmailbox, "
                    "auth_database; missing from: mail_directory, handlers)\" "
                    "recovery=\"mxkeep_domain_rename a.example b.example\"",
            }),
            Records(got.begin() + 3, got.end()));
}

TEST_F(RenameTrail, ARefusalIsOneLine) {
  const struct {
    std::vector<std::string> args;
    std::string line;
  } cases[] = {
      {{"a.example"}, "err " + kTool + "rename refused error=\"Not enough arguments\""},
      {{"a.example", "c.example/x"},
       "err " + kTool +
           "rename refused old=a.example new=c.example/x error=\"Fatal error: "
           "zanth::RenameRefusal(new domain name 'c.example/x' is not a host name: it has a "
           "character other than a letter, a digit, a hyphen or a dot)\""},
  };
  for (const auto& c : cases) {
    shell("> " + kLog);
    runTool(c.args);
    EXPECT_EQ(Records{c.line}, logged("mxkeep_domain_rename", "rename refused"));
  }
}

TEST_F(RenameTrail, NoDaemonOrOneThatStoppedReadingChangesNothing) {
  // A daemon that stopped reading, with its socket's queue full: each
  // send would block.
  const std::string pid = readFile("/run/rsyslogd.pid");
  ASSERT_EQ(0, ::kill(std::stoi(pid), SIGSTOP));
  ASSERT_EQ(0, shell("python3 -c '\n"
                     "import socket\n"
                     "s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)\n"
                     "s.connect(\"/dev/log\")\n"
                     "s.setblocking(False)\n"
                     "try:\n"
                     "    while True: s.send(b\"<22>fill: queue\")\n"
                     "except BlockingIOError: pass\n"
                     "'")
                   .exitCode());
  installPlugin("test_plugins/failing.so");
  RunResult r = runProgram({"/usr/bin/timeout", "-k", "5", "30", toolPath(), "a.example",
                            "b.example"});
  ::kill(std::stoi(pid), SIGCONT);
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("plugin 'failing.so' failed with status '1'\n" + kServicesFailed, r.err);
  expectPlaces(sampleAfter, "a.example", kUsersRenamed);

  // No daemon, no /dev/log.
  ASSERT_EQ(0, shell(kDaemon + " stop").exitCode());
  fresh();
  r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  EXPECT_EQ("", r.err + r.out);
  expectPlaces(sampleAfter, "b.example", kUsersRenamed);
}

}  // namespace
