// Mail directories checked on disk in the sandbox: owners and modes of all
// that is made, the umask around it, the first error of a half-made
// mailbox, moved-aside names, the disposal rules and the popuser lookup.
#include "mail/postfix/mail_dirs.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <iterator>
#include <set>
#include <string>

#include "common/errors.h"
#include "testing/test_support.h"

namespace {

namespace fs = boost::filesystem;
namespace pf = zanth::mail::postfix;
using namespace testing_support;
const std::string kRoot = "/var/qmail/mailnames/";

struct stat statOf(const std::string& path) {
  struct stat st = {};
  EXPECT_EQ(0, ::lstat(path.c_str(), &st)) << path;
  return st;
}

class MailDirs : public ::testing::Test {
 protected:
  void SetUp() override {
    for (fs::directory_iterator it(kRoot), end; it != end; ++it) fs::remove_all(it->path());
    callerUmask_ = ::umask(0);
  }
  void TearDown() override { ::umask(callerUmask_); }
  static mode_t umaskNow() {
    const mode_t m = ::umask(0);
    ::umask(m);
    return m;
  }
  const pf::PopUser& pop_ = pf::getPopUser();
  mode_t callerUmask_ = 0;
};

TEST_F(MailDirs, OwnersAndModesUnderCallerUmaskZero) {
  EXPECT_EQ(kRoot + "a.example/info", pf::mailboxDirectory("a.example", "info").string());
  pf::createDomainDirectory(pop_, "a.example");
  pf::createMailboxDirectory(pop_, "a.example", "info");
  EXPECT_EQ(0u, umaskNow());
  struct stat st = statOf(kRoot + "a.example");
  EXPECT_EQ(S_IFDIR | 0750u, st.st_mode);
  EXPECT_EQ(0u, st.st_uid);
  EXPECT_EQ(pop_.gid, st.st_gid);
  for (const char* sub : {"", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur", "/@attachments"}) {
    st = statOf(kRoot + "a.example/info" + sub);
    EXPECT_EQ(S_IFDIR | 0700u, st.st_mode) << sub;
    EXPECT_EQ(pop_.uid, st.st_uid) << sub;
    EXPECT_EQ(pop_.gid, st.st_gid) << sub;
  }
}

TEST_F(MailDirs, HalfMadeMailboxIsRemovedAndTheFirstErrorKept) {
  const std::string box = kRoot + "a.example/info";
  ASSERT_EQ(0, shell("mkdir -p " + box + "/Maildir " + box + "/@attachments").exitCode());
  writeFile(box + "/Maildir/new", "in the way\n");
  ::umask(027);
  // First the clean-up fails too (a mount point cannot be removed), then
  // it succeeds; the caller sees the first error each time.
  ASSERT_EQ(0, ::mount("mxkeep-test", (box + "/@attachments").c_str(), "tmpfs", 0, nullptr));
  for (bool cleanUpFails : {true, false}) {
    try {
      pf::createMailboxDirectory(pop_, "a.example", "info");
      ADD_FAILURE() << "no error with Maildir/new a plain file";
    } catch (const fs::filesystem_error& e) {
      EXPECT_EQ(EEXIST, e.code().value()) << e.what();
      EXPECT_EQ(box + "/Maildir/new", e.path1().string());
      EXPECT_EQ(EEXIST, errno);
    }
    EXPECT_EQ(cleanUpFails, pathExists(box));
    EXPECT_EQ(027u, umaskNow());
    if (cleanUpFails) {
      ASSERT_EQ(0, ::umount((box + "/@attachments").c_str()));
    }
    ASSERT_EQ(0, shell("mkdir -p " + box + "/Maildir && touch " + box + "/Maildir/new").exitCode());
  }
}

TEST_F(MailDirs, MoveAsideSaveRemoveAndDisposals) {
  pf::createDomainDirectory(pop_, "a.example");
  for (const char* box : {"keep", "gone", "saved"}) pf::createMailboxDirectory(pop_, "a.example", box);
  const std::string savedName = "saved.ZanthSaved." + std::to_string(statOf(kRoot + "a.example/saved").st_ino);
  pf::disposeMailboxDirectory(pop_, "a.example", "keep", 7);
  pf::disposeMailboxDirectory(pop_, "a.example", "gone", pf::kRemoveDirectory);
  pf::disposeMailboxDirectory(pop_, "a.example", "saved", pf::kSaveDirectory);
  std::set<std::string> names;
  for (fs::directory_iterator it(kRoot + "a.example"), end; it != end; ++it)
    names.insert(it->path().filename().string());
  EXPECT_EQ((std::set<std::string>{"keep", savedName}), names);

  fs::path saved("untouched");
  EXPECT_TRUE(pf::moveAside(kRoot + "missing", saved));
  EXPECT_TRUE(saved.empty());
  saved = "untouched";
  EXPECT_TRUE(pf::moveAside(kRoot + "a.example/keep/Maildir/new/x/y", saved)) << "ENOTDIR";
  EXPECT_TRUE(saved.empty());
  ASSERT_EQ(0, ::symlink("loop", (kRoot + "loop").c_str()));
  saved = "untouched";
  EXPECT_FALSE(pf::moveAside(kRoot + "loop", saved));
  EXPECT_EQ(ELOOP, errno);
  EXPECT_EQ("untouched", saved.string());
  EXPECT_THROW(pf::saveDomainDirectory(pop_, "loop"), fs::filesystem_error);
  pf::removeDomainDirectory(pop_, "loop");  // removed where it is
  EXPECT_FALSE(fs::is_symlink(kRoot + "loop"));

  const std::string domainSaved = kRoot + "a.example.ZanthSaved." + std::to_string(statOf(kRoot + "a.example").st_ino);
  pf::disposeDomainDirectory(pop_, "a.example", pf::kSaveDirectory);
  pf::saveDomainDirectory(pop_, "a.example");  // nothing left to save
  EXPECT_TRUE(pathExists(domainSaved + "/keep/Maildir/cur"));
  pf::createDomainDirectory(pop_, "c.example");
  pf::disposeDomainDirectory(pop_, "c.example", pf::kRemoveDirectory);
  EXPECT_EQ(1, std::distance(fs::directory_iterator(kRoot), fs::directory_iterator()));
}

TEST_F(MailDirs, PopUserIsLookedUpOnEveryCall) {
  const uid_t uid = pop_.uid;
  ASSERT_EQ(0, shell("usermod -u " + std::to_string(uid + 1234) + " popuser").exitCode());
  EXPECT_EQ(uid + 1234, pf::getPopUser().uid);
  ASSERT_EQ(0, shell("usermod -l popuser-away popuser").exitCode());
  try {
    pf::getPopUser();
    ADD_FAILURE() << "no error for a missing account";
  } catch (const zanth::SystemError& e) {
    EXPECT_EQ(0u, std::string(e.what()).find("user popusernot found")) << e.what();
  }
  ASSERT_EQ(0, shell("usermod -l popuser popuser-away && usermod -u " + std::to_string(uid) + " popuser").exitCode());
}

}  // namespace
