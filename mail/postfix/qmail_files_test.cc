// Delivery files in the sandbox with the real popuser account: the lines
// after each step, owner and mode, the exact diagnostics on both streams,
// a full file system, and two processes editing one file at once.
#include "mail/postfix/qmail_files.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <sstream>
#include <string>

#include "common/errors.h"
#include "mail/postfix/mail_dirs.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

namespace pf = zanth::mail::postfix;
using namespace testing_support;

const std::string kBox = "/var/qmail/mailnames/a.example/info";
const std::string kQmail = kBox + "/.qmail";
const std::string kDeliver = "| /usr/bin/deliverquota ./Maildir\n";

class QmailFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, shell("rm -rf /var/qmail/mailnames/*").exitCode());
    pf::createDomainDirectory(pf::getPopUser(), "a.example");
    pf::createMailboxDirectory(pf::getPopUser(), "a.example", "info");
  }
  static std::string ownerAndMode() { return shell("stat -c '%U:%G %a' " + kQmail).out; }
  // Both streams of a lower-layer call made in a child, which must fail.
  static std::string failureOutput(const std::function<int()>& step) {
    RunResult r = runInChild([&] { return step() == -1 ? 0 : 1; });
    EXPECT_EQ(0, r.exitCode());
    EXPECT_EQ(r.out, r.err);
    return r.out;
  }
};

TEST_F(QmailFiles, EnablingTwiceLeavesOneDeliverLineAndNoPlainMaildirLine) {
  pf::createQmailFile("a.example", "info");
  EXPECT_EQ("| true\n", readFile(kQmail));
  EXPECT_EQ("popuser:popuser 600\n", ownerAndMode());
  writeFile(kQmail, "./Maildir/\n| true\n./Maildir/\n", 0644);
  pf::enableMailbox("a.example", "info");
  EXPECT_EQ(0, qmail_enable_mailbox("info", "a.example"));
  EXPECT_EQ("| true\n" + kDeliver, readFile(kQmail));
  EXPECT_EQ("popuser:popuser 600\n", ownerAndMode());
  pf::disableMailbox("a.example", "info");
  EXPECT_EQ("| true\n", readFile(kQmail));
}

TEST_F(QmailFiles, ForwardsAppearOnceInAsciiAndGoAgain) {
  pf::createQmailFile("a.example", "info");
  pf::addForward("a.example", "info", "bob@b.example");
  pf::addForward("a.example", "info", "anna@bücher.example");
  pf::addForward("a.example", "info", "bob@b.example");
  EXPECT_EQ("| true\n&anna@xn--bcher-kva.example\n&bob@b.example\n", readFile(kQmail));
  pf::removeForward("a.example", "info", "bob@b.example");
  EXPECT_EQ(0, qmail_remove_forward("info", "a.example", "anna@bücher.example"));
  EXPECT_EQ("| true\n", readFile(kQmail));
  EXPECT_EQ("popuser:popuser 600\n", ownerAndMode());
}

TEST_F(QmailFiles, WithoutAFileSwitchingOffFailsAndSwitchingOnCreates) {
  EXPECT_EQ("Unable to remove string from " + kQmail +
                " file\nSystem error 2: No such file or directory\n",
            failureOutput([] { return qmail_disable_mailbox("info", "a.example"); }));
  EXPECT_EQ("Unable to remove string from " + kQmail +
                " file.\nSystem error 2: No such file or directory\n",
            failureOutput([] { return qmail_remove_forward("info", "a.example", "b@b.example"); }));
  EXPECT_FALSE(pathExists(kQmail));

  pf::enableMailbox("a.example", "info");
  EXPECT_EQ(kDeliver, readFile(kQmail));
  EXPECT_EQ("popuser:popuser 600\n", ownerAndMode());
}

TEST_F(QmailFiles, BadNamesAndAddressesAreRefusedWithTheirTexts) {
  char buf[4096];
  EXPECT_EQ(0, qmail_path(buf, sizeof buf, "_info", "bücher.example"));
  EXPECT_STREQ("/var/qmail/mailnames/xn--bcher-kva.example/_info/.qmail", buf);

  EXPECT_EQ("empty mailname or maildomain\n",
            failureOutput([] { return qmail_enable_mailbox(".info", "a.example"); }));
  EXPECT_EQ("idn_toascii(a..b) failed: Invalid length\n",
            failureOutput([] { return qmail_enable_mailbox("info", "a..b"); }));

  // A line feed in an address would smuggle in a delivery instruction.
  writeFile(kQmail, "| true\n");
  EXPECT_EQ("Unable to add string to " + kQmail + " file.\nSystem error 22: Invalid argument\n",
            failureOutput(
                [] { return qmail_file_add_forward(kQmail.c_str(), "a\n|/bin/sh@b.example"); }));
  EXPECT_EQ("| true\n", readFile(kQmail));
}

TEST_F(QmailFiles, FailedWriteKeepsTheOldFileAndLeavesNoTemporaryFile) {
  EXPECT_EQ(
      "unable to modify /var/qmail/mailnames/a.example/nobody/.qmail: "
      "No such file or directory",
      thrownWhat<zanth::SystemError>([] { pf::createQmailFile("a.example", "nobody"); }));

  ASSERT_EQ(0, ::mount("mxkeep-test", kBox.c_str(), "tmpfs", 0, "size=8k"));
  writeFile(kQmail, "| true\n" + kDeliver);
  shell("dd if=/dev/zero of=" + kBox + "/fill bs=1k count=64");
  EXPECT_EQ("Unable to write to " + kQmail +
                ": No space left on device\nSystem error 28: No space left on device\n",
            failureOutput([] { return qmail_write_discard(kQmail.c_str()); }));
  EXPECT_EQ(".qmail\nfill\n", shell("ls -A " + kBox + " | LC_ALL=C sort").out);
  EXPECT_EQ("| true\n" + kDeliver, readFile(kQmail));
  ASSERT_EQ(0, ::umount(kBox.c_str()));
}

TEST_F(QmailFiles, TwoProcessesEditingAtOnceLoseNoLine) {
  constexpr int kForwards = 200;
  pf::createQmailFile("a.example", "info");
  int gate[2];
  ASSERT_EQ(0, pipe(gate));
  pid_t editors[2];
  for (int e = 0; e < 2; ++e) {
    if ((editors[e] = fork()) == 0) {
      close(gate[1]);
      char c;
      if (read(gate[0], &c, 1) != 0) _exit(100);  // both start at end of file
      int failures = 0;
      for (int i = 0; i < kForwards; ++i) {
        std::string address = "e" + std::to_string(e) + "n" + std::to_string(i) + "@b.example";
        failures += qmail_add_forward("info", "a.example", address.c_str()) != 0;
      }
      _exit(failures);
    }
  }
  close(gate[0]);
  close(gate[1]);  // opens the gate for both at once
  for (pid_t pid : editors) {
    int status = -1;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }

  std::istringstream lines(readFile(kQmail));
  std::multiset<std::string> seen;
  for (std::string line; std::getline(lines, line);) seen.insert(line);
  EXPECT_EQ(1u + 2 * kForwards, seen.size());
  EXPECT_EQ(1u, seen.count("| true"));
  for (int e = 0; e < 2; ++e)
    for (int i = 0; i < kForwards; ++i)
      EXPECT_EQ(1u, seen.count("&e" + std::to_string(e) + "n" + std::to_string(i) + "@b.example"));
}

}  // namespace
