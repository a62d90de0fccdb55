// Maildir usage counting checked on real Maildir trees: the size rule on
// names, folders and the Trash exception, and the apparent size of a tree
// against du's figure.
#include "common/maildir_walk.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/test_support.h"

namespace {

using namespace testing_support;

class MaildirWalk : public ::testing::Test {
 protected:
  int sh(const std::string& command) {
    return shell("cd " + dir_.path() + " && " + command).exitCode();
  }
  std::string maildir() const { return dir_ / "Maildir"; }
  TempDir dir_;
};

TEST_F(MaildirWalk, CountsNewCurAndFoldersButNotTrashOrOddEntries) {
  ASSERT_EQ(0,
            sh("mkdir -p Maildir/new Maildir/cur Maildir/tmp Maildir/.Sent/cur Maildir/.Trash/cur "
               "&& cd Maildir && : > new/1.M1.h,S=1000 && : > cur/2.M1.h,S=1000:2,S && "
               "head -c 123 /dev/zero > cur/3.M1.h:2, && head -c 77 /dev/zero > new/4,S=1,W=2 && "
               ": > .Sent/cur/5,S=500:2,S && : > .Trash/cur/6,S=99999:2,T && : > tmp/7,S=4000 && "
               ": > .notes && ln -s .Sent .Link && touch -d @1000000000 new cur && "
               "touch -d @1000000500 .Sent/cur && touch -d @1500000000 .Trash/cur"));
  maildir_usage usage{-1, 99, 5};
  ASSERT_EQ(0, maildir_count_usage(maildir().c_str(), &usage));
  EXPECT_EQ(1000 + 1000 + 123 + 77 + 500, usage.bytes);
  EXPECT_EQ(5u, usage.messages);
  EXPECT_EQ(1000000500, usage.newest_mtime);
}

TEST_F(MaildirWalk, TreeSizeIsDuApparentSizeWithoutFollowingLinks) {
  // No hard links: du counts a linked file once, the sum each time.
  ASSERT_EQ(0, sh("mkdir -p t/a/b && head -c 6000 /dev/zero > t/a/b/f && : > t/e && "
                  "head -c 100000 /dev/zero > big && ln -s ../big t/a/link && ln -s .. t/up"));
  const long long expected = std::stoll(shell("du -s -B1 --apparent-size " + (dir_ / "t")).out);
  EXPECT_EQ(expected, dir_size((dir_ / "t").c_str()));
  EXPECT_LT(expected, 100000);
  EXPECT_EQ(-1, dir_size((dir_ / "missing").c_str()));
}

}  // namespace
