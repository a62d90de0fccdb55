// Mail directories, checked on disk inside the sandbox: owners and modes of
// everything made, the umask around it, moved-aside names, the disposal
// rules, and the errors of rename, save and a half-made mailbox.
#include "mail/postfix/mail_dirs.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <set>
#include <string>

#include "common/errors.h"
#include "testing/test_support.h"

namespace {

namespace fs = boost::filesystem;
namespace pf = zanth::mail::postfix;
using testing_support::pathExists;
using testing_support::shell;
using testing_support::writeFile;

const std::string kRoot = "/var/qmail/mailnames";

struct Stat {
  bool exists = false;
  mode_t mode = 0;  // permission bits only
  uid_t uid = 0;
  gid_t gid = 0;
  ino_t ino = 0;
  bool isDir = false;
};

Stat statOf(const std::string& path) {
  struct stat st;
  Stat s;
  if (::lstat(path.c_str(), &st) != 0) return s;
  s.exists = true;
  s.mode = st.st_mode & 07777;
  s.uid = st.st_uid;
  s.gid = st.st_gid;
  s.ino = st.st_ino;
  s.isDir = S_ISDIR(st.st_mode);
  return s;
}

// Ids of popuser as the account database has them now.
struct passwd popuserEntry() {
  const struct passwd* pw = ::getpwnam("popuser");
  EXPECT_NE(nullptr, pw) << "no popuser account in the sandbox";
  return pw != nullptr ? *pw : passwd{};
}

class MailDirs : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::is_directory(kRoot)) << kRoot;
    for (fs::directory_iterator it(kRoot), end; it != end; ++it) fs::remove_all(it->path());
    callerUmask_ = ::umask(0);
    ::umask(callerUmask_);
  }
  void TearDown() override { ::umask(callerUmask_); }

  // Returns the current umask without changing it.
  static mode_t currentUmask() {
    const mode_t m = ::umask(0);
    ::umask(m);
    return m;
  }

  mode_t callerUmask_ = 022;
};

TEST_F(MailDirs, PathsUnderTheDefaultRoot) {
  EXPECT_EQ(kRoot + "/a.example", pf::domainDirectory("a.example").string());
  EXPECT_EQ(kRoot + "/a.example/info", pf::mailboxDirectory("a.example", "info").string());
  EXPECT_EQ("a.example", pf::relativeDomainPath("a.example").string());
}

TEST_F(MailDirs, PopUserIsLookedUpOnEveryCall) {
  const struct passwd pw = popuserEntry();
  const pf::PopUser& first = pf::getPopUser();
  EXPECT_EQ(pw.pw_uid, first.uid);
  EXPECT_EQ(pw.pw_gid, first.gid);

  const uid_t otherUid = pw.pw_uid + 1234;
  ASSERT_EQ(0, shell("usermod -u " + std::to_string(otherUid) + " popuser").exitCode());
  EXPECT_EQ(otherUid, pf::getPopUser().uid);
  EXPECT_EQ(&first, &pf::getPopUser()) << "one process-wide record";

  ASSERT_EQ(0, shell("usermod -l popuser-away popuser").exitCode());
  try {
    pf::getPopUser();
    ADD_FAILURE() << "no error for a missing account";
  } catch (const zanth::SystemError& e) {
    EXPECT_EQ(0u, std::string(e.what()).find("user popusernot found")) << e.what();
  }
  ASSERT_EQ(0, shell("usermod -l popuser popuser-away && usermod -u " +
                     std::to_string(pw.pw_uid) + " popuser")
                   .exitCode());
}

TEST_F(MailDirs, DomainDirectoryOwnedByRootAndPopGroupEvenUnderUmaskZero) {
  const pf::PopUser& pop = pf::getPopUser();
  ::umask(0);
  pf::createDomainDirectory(pop, "a.example");
  EXPECT_EQ(0u, currentUmask());
  Stat s = statOf(kRoot + "/a.example");
  ASSERT_TRUE(s.isDir);
  EXPECT_EQ(0750u, s.mode);
  EXPECT_EQ(0u, s.uid);
  EXPECT_EQ(pop.gid, s.gid);

  // An existing directory is fixed up, and missing parents are made.
  ::umask(022);
  ASSERT_EQ(0, shell("chmod 0777 " + kRoot + "/a.example && chown popuser " + kRoot +
                     "/a.example").exitCode());
  pf::createDomainDirectory(pop, "a.example");
  s = statOf(kRoot + "/a.example");
  EXPECT_EQ(0750u, s.mode);
  EXPECT_EQ(0u, s.uid);
  EXPECT_EQ(022u, currentUmask());
}

TEST_F(MailDirs, MailboxLayoutOwnedByPopUserWithMode0700UnderUmaskZero) {
  const pf::PopUser& pop = pf::getPopUser();
  pf::createDomainDirectory(pop, "a.example");
  ::umask(0);
  pf::createMailboxDirectory(pop, "a.example", "info");
  EXPECT_EQ(0u, currentUmask());
  const std::string box = kRoot + "/a.example/info";
  for (const char* sub : {"", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur",
                          "/@attachments"}) {
    const Stat s = statOf(box + sub);
    ASSERT_TRUE(s.isDir) << box + sub;
    EXPECT_EQ(0700u, s.mode) << box + sub;
    EXPECT_EQ(pop.uid, s.uid) << box + sub;
    EXPECT_EQ(pop.gid, s.gid) << box + sub;
  }
  // The domain directory is left as it was made.
  EXPECT_EQ(0750u, statOf(kRoot + "/a.example").mode);
}

TEST_F(MailDirs, FailedMailboxIsRemovedAndTheFirstErrorReported) {
  const pf::PopUser& pop = pf::getPopUser();
  const std::string box = kRoot + "/a.example/info";
  ASSERT_EQ(0, shell("mkdir -p " + box + "/Maildir").exitCode());
  writeFile(box + "/Maildir/new", "in the way\n");
  ::umask(027);
  try {
    pf::createMailboxDirectory(pop, "a.example", "info");
    ADD_FAILURE() << "no error with Maildir/new a plain file";
  } catch (const fs::filesystem_error& e) {
    EXPECT_EQ(EEXIST, e.code().value()) << e.what();
    EXPECT_EQ(box + "/Maildir/new", e.path1().string());
    EXPECT_EQ(EEXIST, errno);
  }
  EXPECT_FALSE(pathExists(box));
  EXPECT_EQ(027u, currentUmask());
}

TEST_F(MailDirs, FailedCleanUpDoesNotHideTheFirstError) {
  const pf::PopUser& pop = pf::getPopUser();
  const std::string box = kRoot + "/a.example/info";
  ASSERT_EQ(0, shell("mkdir -p " + box + "/Maildir " + box + "/@attachments").exitCode());
  writeFile(box + "/Maildir/new", "in the way\n");
  // A mount point cannot be removed (EBUSY), so the clean-up fails too.
  ASSERT_EQ(0, ::mount("mxkeep-test", (box + "/@attachments").c_str(), "tmpfs", 0, nullptr))
      << std::strerror(errno);
  try {
    pf::createMailboxDirectory(pop, "a.example", "info");
    ADD_FAILURE() << "no error with Maildir/new a plain file";
  } catch (const fs::filesystem_error& e) {
    EXPECT_EQ(EEXIST, e.code().value()) << e.what();
    EXPECT_EQ(EEXIST, errno);
  }
  EXPECT_TRUE(pathExists(box + "/@attachments")) << "the clean-up did fail";
  ASSERT_EQ(0, ::umount((box + "/@attachments").c_str()));
}

TEST_F(MailDirs, MoveAsideNamesByInodeAndToleratesNothingThere) {
  const std::string dir = kRoot + "/a.example";
  ASSERT_EQ(0, shell("mkdir -p " + dir + "/info && echo x > " + dir + "/info/f").exitCode());
  const ino_t ino = statOf(dir).ino;
  fs::path saved("untouched");
  ASSERT_TRUE(pf::moveAside(dir, saved));
  const std::string expected = dir + ".ZanthSaved." + std::to_string(ino);
  EXPECT_EQ(expected, saved.string());
  EXPECT_FALSE(pathExists(dir));
  EXPECT_EQ("x\n", testing_support::readFile(expected + "/info/f"));

  saved = "untouched";
  EXPECT_TRUE(pf::moveAside(dir, saved)) << "missing path";
  EXPECT_TRUE(saved.empty());

  writeFile(kRoot + "/plain", "");
  saved = "untouched";
  EXPECT_TRUE(pf::moveAside(kRoot + "/plain/sub", saved)) << "parent is a file";
  EXPECT_TRUE(saved.empty());

  ASSERT_EQ(0, ::symlink("loop", (kRoot + "/loop").c_str()));
  saved = "untouched";
  errno = 0;
  EXPECT_FALSE(pf::moveAside(kRoot + "/loop", saved));
  EXPECT_EQ(ELOOP, errno);
  EXPECT_EQ("untouched", saved.string());
}

TEST_F(MailDirs, SaveDomainTwiceKeepsOneCopyAndUnreadablePathThrows) {
  const pf::PopUser& pop = pf::getPopUser();
  pf::createDomainDirectory(pop, "a.example");
  const ino_t ino = statOf(kRoot + "/a.example").ino;
  pf::saveDomainDirectory(pop, "a.example");
  pf::saveDomainDirectory(pop, "a.example");
  EXPECT_TRUE(statOf(kRoot + "/a.example.ZanthSaved." + std::to_string(ino)).isDir);
  EXPECT_EQ(1, std::distance(fs::directory_iterator(kRoot), fs::directory_iterator()));

  ASSERT_EQ(0, ::symlink("b.example", (kRoot + "/b.example").c_str()));
  try {
    pf::saveDomainDirectory(pop, "b.example");
    ADD_FAILURE() << "no error for a symbolic link loop";
  } catch (const fs::filesystem_error& e) {
    EXPECT_EQ(ELOOP, e.code().value());
    EXPECT_EQ(kRoot + "/b.example", e.path1().string());
    EXPECT_EQ(0u, std::string(e.what()).find("rename")) << e.what();
  }
}

TEST_F(MailDirs, RemoveDomainLeavesNothingBehind) {
  const pf::PopUser& pop = pf::getPopUser();
  pf::createDomainDirectory(pop, "a.example");
  pf::createMailboxDirectory(pop, "a.example", "info");
  writeFile(kRoot + "/a.example/info/Maildir/new/1.mail", "Subject: x\n\n");
  pf::createDomainDirectory(pop, "c.example");

  pf::disposeDomainDirectory(pop, "a.example", pf::kRemoveDirectory);
  pf::removeDomainDirectory(pop, "a.example");  // nothing there: no error
  // A path that cannot be examined is removed where it is.
  ASSERT_EQ(0, ::symlink("d.example", (kRoot + "/d.example").c_str()));
  pf::removeDomainDirectory(pop, "d.example");

  fs::directory_iterator it(kRoot);
  ASSERT_NE(fs::directory_iterator(), it);
  EXPECT_EQ(kRoot + "/c.example", it->path().string());
  EXPECT_EQ(fs::directory_iterator(), ++it);
}

TEST_F(MailDirs, DisposalRules) {
  const pf::PopUser& pop = pf::getPopUser();
  pf::createDomainDirectory(pop, "a.example");
  for (const char* box : {"keep", "other", "gone", "saved"})
    pf::createMailboxDirectory(pop, "a.example", box);
  const ino_t savedIno = statOf(kRoot + "/a.example/saved").ino;

  pf::disposeMailboxDirectory(pop, "a.example", "keep", pf::kKeepDirectory);
  pf::disposeMailboxDirectory(pop, "a.example", "other", 7);
  pf::disposeMailboxDirectory(pop, "a.example", "gone", pf::kRemoveDirectory);
  pf::disposeMailboxDirectory(pop, "a.example", "saved", pf::kSaveDirectory);
  pf::disposeMailboxDirectory(pop, "a.example", "missing", pf::kRemoveDirectory);

  std::set<std::string> names;
  for (fs::directory_iterator it(kRoot + "/a.example"), end; it != end; ++it)
    names.insert(it->path().filename().string());
  EXPECT_EQ((std::set<std::string>{"keep", "other", "saved.ZanthSaved." + std::to_string(savedIno)}),
            names);

  pf::disposeDomainDirectory(pop, "a.example", 5);
  EXPECT_TRUE(pathExists(kRoot + "/a.example/keep/Maildir/cur"));
}

TEST_F(MailDirs, RenamesMoveTheTreeAndMissingSourceNamesBothPaths) {
  const pf::PopUser& pop = pf::getPopUser();
  pf::createDomainDirectory(pop, "a.example");
  pf::createMailboxDirectory(pop, "a.example", "info");
  pf::renameMailboxDirectory(pop, "a.example", "info", "sales");
  pf::renameDomainDirectory(pop, "a.example", "b.example");
  EXPECT_FALSE(pathExists(kRoot + "/a.example"));
  const Stat s = statOf(kRoot + "/b.example/sales/Maildir/new");
  EXPECT_TRUE(s.isDir);
  EXPECT_EQ(pop.uid, s.uid);
  EXPECT_EQ(0750u, statOf(kRoot + "/b.example").mode);

  try {
    pf::renameDomainDirectory(pop, "a.example", "c.example");
    ADD_FAILURE() << "no error for a missing directory";
  } catch (const fs::filesystem_error& e) {
    EXPECT_EQ(ENOENT, e.code().value());
    EXPECT_EQ(kRoot + "/a.example", e.path1().string());
    EXPECT_EQ(kRoot + "/c.example", e.path2().string());
    EXPECT_NE(std::string::npos, std::string(e.what()).find("boost::filesystem::rename"))
        << e.what();
  }
  EXPECT_FALSE(pathExists(kRoot + "/c.example"));
}

}  // namespace
