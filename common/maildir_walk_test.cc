// Maildir usage counting checked on real Maildir trees: the size rule on
// names, folders and the Trash exception, odd entries, the folder check's
// messages, and the apparent size of a tree against du's own figure.
#include "common/maildir_walk.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "testing/child.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;

TEST(MaildirSizeFromName, ReadsTheDeclaredSizeOnlyWhereTheRuleAllows) {
  struct Case {
    const char* name;
    bool found;
    long long size;
  } const cases[] = {
      {"1700000000.M1P2.host,S=1000", true, 1000},
      {"1700000000.M1P2.host,S=1000:2,S", true, 1000},
      {"1700000000.M1P2.host,S=0:2,", true, 0},
      {"a,S=12x,S=34:2,S", true, 34},        // a later tag may still qualify
      {"a,S=1000,W=1020:2,S", false, 0},     // the number must end at ":" or the end
      {"a,S=:2,S", false, 0},
      {"a,S=-5", false, 0},
      {"a,s=100", false, 0},
      {"plain-name", false, 0},
      {"", false, 0},
      {"a,S=9223372036854775807", true, 9223372036854775807LL},
      {"a,S=9223372036854775808", false, 0},  // does not fit: counted by lstat
      {"a,S=99999999999999999999999:2,", false, 0},
  };
  for (const Case& c : cases) {
    long long size = -7;
    EXPECT_EQ(c.found, maildir_size_from_name(c.name, &size)) << c.name;
    EXPECT_EQ(c.found ? c.size : -7, size) << c.name;
  }
}

class MaildirWalk : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, sh("mkdir -p Maildir/new Maildir/cur Maildir/tmp Maildir/.Sent/new "
                    "Maildir/.Sent/cur Maildir/.Trash/new Maildir/.Trash/cur"));
  }
  int sh(const std::string& command) {
    return shell("cd " + dir_.path() + " && " + command).exitCode();
  }
  std::string maildir() const { return dir_ / "Maildir"; }
  TempDir dir_;
};

TEST_F(MaildirWalk, CountsNewCurAndFoldersButNotTrashOrOddEntries) {
  ASSERT_EQ(0, sh("cd Maildir && : > new/1.M1.h,S=1000 && : > cur/2.M1.h,S=1000:2,S && "
                  "head -c 123 /dev/zero > cur/3.M1.h:2, && "      // no size in the name
                  "head -c 77 /dev/zero > new/4.M1.h,S=1,W=2 && "  // no valid size either
                  ": > .Sent/cur/5.M1.h,S=500:2,S && : > .Trash/cur/6.M1.h,S=99999:2,T && "
                  ": > tmp/7.M1.h,S=4000 && : > .notes && ln -s .Sent .Link && "
                  "touch -d @1000000000 new cur .Sent/new && touch -d @1000000500 .Sent/cur && "
                  "touch -d @1500000000 .Trash/new .Trash/cur"));
  maildir_usage usage{-1, 99, 5};
  ASSERT_EQ(0, maildir_count_usage(maildir().c_str(), &usage));
  EXPECT_EQ(1000 + 1000 + 123 + 77 + 500, usage.bytes);
  EXPECT_EQ(5u, usage.messages);
  EXPECT_EQ(1000000500, usage.newest_mtime);
}

TEST_F(MaildirWalk, MissingMessageDirectoriesCountAsEmpty) {
  ASSERT_EQ(0, sh("rm -r Maildir/cur Maildir/.Sent/new && : > Maildir/new/1,S=10"));
  maildir_usage usage{};
  ASSERT_EQ(0, maildir_count_usage(maildir().c_str(), &usage));
  EXPECT_EQ(10, usage.bytes);
  EXPECT_EQ(1u, usage.messages);
  EXPECT_EQ(-1, maildir_count_usage((dir_ / "gone").c_str(), &usage));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(MaildirWalk, FolderCheckSeesLinkedFoldersIgnoresTrashAndNamesOddEntries) {
  ASSERT_EQ(0, sh("mkdir -p other/new other/cur && cd Maildir && ln -s ../other .Linked && "
                  ": > .notes && touch -d @1000000000 new cur .Sent/new .Sent/cur && "
                  "touch -d @1200000000 ../other/cur ../other/new && touch -d @1500000000 .Trash/new"));
  RunResult r = runInChild([&] {
    time_t newest = 1;  // the quota code runs it inside the Maildir
    if (::chdir(maildir().c_str()) != 0 || maildir_newest_folder_mtime(".", &newest) != 0) return 2;
    return newest == 1200000000 ? 0 : 3;
  });
  EXPECT_EQ(0, r.exitCode());
  const std::string message =
      "Bad/unrecognized entry .notes within Maildir folder " + maildir() + "\n";
  EXPECT_EQ(message, r.err);
  EXPECT_EQ(message, r.out);
}

TEST_F(MaildirWalk, FolderCheckFailsWithEioWhenAFolderLacksCur) {
  ASSERT_EQ(0, sh("rm -r Maildir/.Sent/cur"));
  RunResult r = runInChild([&] {
    time_t newest;
    errno = 0;
    int rc = maildir_newest_folder_mtime(maildir().c_str(), &newest);
    return rc == -1 && errno == EIO ? 0 : 1;
  });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("Maildir subfolder 'cur' stat failed\nSystem error 2: No such file or directory\n",
            r.err);
}

TEST_F(MaildirWalk, TreeSizeIsDuApparentSizeWithoutFollowingLinks) {
  ASSERT_EQ(0, sh("mkdir -p t/a/b && head -c 6000 /dev/zero > t/a/b/f && : > t/e && "
                  "head -c 100000 /dev/zero > big && ln -s ../big t/a/link && ln -s .. t/up"));
  // No hard links in the tree: du counts a linked file once, the sum each time.
  long long expected = std::stoll(shell("du -s -B1 --apparent-size " + (dir_ / "t")).out);
  EXPECT_EQ(expected, dir_size((dir_ / "t").c_str()));
  EXPECT_GT(expected, 6000);
  EXPECT_LT(expected, 100000);
  EXPECT_EQ(-1, dir_size((dir_ / "missing").c_str()));
  EXPECT_EQ(ENOENT, errno);
}

}  // namespace
