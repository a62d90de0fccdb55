// Mail directories checked on disk in the sandbox: owners and modes of what
// is made, the umask around it, the first error of a failed mailbox, and
// what each disposal leaves behind.
#include "mail/postfix/mail_dirs.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <functional>
#include <string>

#include "mail/postfix/maildirsize.h"
#include "mail/postfix/qmail_files.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

namespace pf = zanth::mail::postfix;
using namespace testing_support;
const std::string kBox = "/var/qmail/mailnames/a.example/info";

mode_t umaskNow() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

class MailDirs : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, shell("rm -rf /var/qmail/mailnames/*").exitCode()); }
  void TearDown() override { ::umask(callerUmask_); }
  const mode_t callerUmask_ = ::umask(0);
  const pf::PopUser& pop_ = pf::getPopUser();
};

TEST_F(MailDirs, OwnersAndModesUnderCallerUmaskZero) {
  pf::createDomainDirectory(pop_, "a.example");
  pf::createMailboxDirectory(pop_, "a.example", "info");
  EXPECT_EQ(0u, umaskNow());
  EXPECT_EQ(
      ". d 750 root:popuser\n./info d 700 popuser:popuser\n"
      "./info/@attachments d 700 popuser:popuser\n./info/Maildir d 700 popuser:popuser\n"
      "./info/Maildir/cur d 700 popuser:popuser\n./info/Maildir/new d 700 popuser:popuser\n"
      "./info/Maildir/tmp d 700 popuser:popuser\n",
      shell("cd /var/qmail/mailnames/a.example && find . -printf '%p %y %m %u:%g\\n' | "
            "LC_ALL=C sort")
          .out);
}

TEST_F(MailDirs, HalfMadeMailboxIsRemovedAndTheFirstErrorKept) {
  ASSERT_EQ(0, shell("mkdir -p " + kBox + "/@attachments").exitCode());
  ::umask(027);
  // The clean-up fails too at first: a mount point cannot be removed.
  ASSERT_EQ(0, ::mount("mxkeep-test", (kBox + "/@attachments").c_str(), "tmpfs", 0, nullptr));
  for (bool cleanUpFails : {true, false}) {
    ASSERT_EQ(0,
              shell("mkdir -p " + kBox + "/Maildir && touch " + kBox + "/Maildir/new").exitCode());
    try {
      pf::createMailboxDirectory(pop_, "a.example", "info");
      ADD_FAILURE() << "no error with Maildir/new a plain file";
    } catch (const boost::filesystem::filesystem_error& e) {
      EXPECT_EQ(EEXIST, e.code().value()) << e.what();
      EXPECT_EQ(kBox + "/Maildir/new", e.path1().string());
      EXPECT_EQ(EEXIST, errno);
    }
    EXPECT_EQ(cleanUpFails, pathExists(kBox));
    EXPECT_EQ(027u, umaskNow());
    if (cleanUpFails) {
      ASSERT_EQ(0, ::umount((kBox + "/@attachments").c_str()));
    }
  }
}

// The tree is a.example/info/m; "#" stands for the inode number of the
// directory moved aside, read before the move.
TEST_F(MailDirs, DisposalKeepsRemovesOrSavesUnderTheInodeSuffixedName) {
  struct Row {
    bool domain;
    int disposal;
    const char* left;
  };
  const Row rows[] = {
      {true, pf::kKeepDirectory, "a.example a.example/info a.example/info/m"},
      {true, pf::kRemoveDirectory, ""},
      {true, pf::kSaveDirectory,
       "a.example.ZanthSaved.# a.example.ZanthSaved.#/info a.example.ZanthSaved.#/info/m"},
      {false, pf::kKeepDirectory, "a.example a.example/info a.example/info/m"},
      {false, pf::kRemoveDirectory, "a.example"},
      {false, pf::kSaveDirectory,
       "a.example a.example/info.ZanthSaved.# a.example/info.ZanthSaved.#/m"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.domain) + " " + std::to_string(row.disposal));
    const std::string dir = row.domain ? "/var/qmail/mailnames/a.example" : kBox;
    ASSERT_EQ(0,
              shell("rm -rf /var/qmail/mailnames/*; mkdir -p " + kBox + " && touch " + kBox + "/m")
                  .exitCode());
    const std::string inode = shell("stat -c %i " + dir + " | tr -d '\\n'").out;
    // Twice: the second time finds nothing left to remove or save.
    for (int pass = 0; pass < 2; ++pass) {
      if (row.domain)
        pf::disposeDomainDirectory(pop_, "a.example", row.disposal);
      else
        pf::disposeMailboxDirectory(pop_, "a.example", "info", row.disposal);
    }
    std::string left = row.left;
    for (size_t at; (at = left.find('#')) != std::string::npos;) left.replace(at, 1, inode);
    EXPECT_EQ(left + "\n", shell("cd /var/qmail/mailnames && find . -mindepth 1 -printf '%P\\n' | "
                                 "LC_ALL=C sort | xargs echo")
                               .out);
  }
}

// One builder spells every mailbox path; each caller words its own
// failure when the path does not fit.
TEST_F(MailDirs, MailboxPathTooLongIsReportedInEachCallersWords) {
  static const std::string kLong(4096, 'm');
  EXPECT_EQ("/var/qmail/mailnames/a.example/info", pf::mailboxDirectory("a.example", "info"));
  try {
    pf::mailboxDirectory("a.example", kLong);
    ADD_FAILURE() << "no error for a path longer than any system call takes";
  } catch (const boost::filesystem::filesystem_error& e) {
    EXPECT_EQ(ENAMETOOLONG, e.code().value());
  }
  const struct {
    std::function<int()> call;
    std::string shown;
  } cases[] = {
      {[] { return mailbox_set_quota("a.example", kLong.c_str(), 1) == 0 ? 0 : 1; },
       "domain and/or user name too long to be stored on the filesystem\n"
       "System error 36: File name too long\n"},
      {[] { return qmail_enable_mailbox(kLong.c_str(), "a.example") == -1 ? 0 : 1; },
       "Either domain name 'a.example' or mailname '" + kLong +
           "' are too long to store .qmail path in the provided buffer\n"},
  };
  for (const auto& c : cases) {
    RunResult r = runInChild(c.call);
    EXPECT_EQ(0, r.exitCode());
    EXPECT_EQ(c.shown, r.err);
  }
}

}  // namespace
