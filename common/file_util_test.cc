// File helpers on real directories: what exists afterwards, with which
// owner and mode, and what the helpers read or leave behind.
#include "common/file_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "testing/child.h"

namespace {

using namespace testing_support;

class FileUtil : public ::testing::Test {
 protected:
  void SetUp() override { saved_umask_ = umask(022); }
  void TearDown() override { umask(saved_umask_); }

  // "name owner:group mode" of each path below the directory, one a line.
  std::string owners(const std::string& paths) {
    return shell("cd " + dir_.path() + " && stat -c '%n %U:%G %a' " + paths).out;
  }

  TempDir dir_;
  mode_t saved_umask_ = 0;
};

TEST_F(FileUtil, MakeDirsCreatesOnlyTheMissingLevels) {
  ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0700));
  EXPECT_NE(0, make_dirs((dir_ / "a/b//c/").c_str()));

  // Owned levels: the last with the mode asked for, its parents without the
  // special bits; an existing directory, alone or on the way, left alone.
  const struct passwd* pop = getpwnam("popuser");
  ASSERT_NE(nullptr, pop);
  umask(0);
  for (const char* path : {"a/n1/n2", "a", "a/n1/n3"})  // n3: only the last level missing
    EXPECT_EQ(0, make_dirs_owned((dir_ / path).c_str(), pop->pw_uid, pop->pw_gid, 01750));
  EXPECT_EQ(
      "a root:root 700\na/b root:root 755\na/b/c root:root 755\na/n1 popuser:popuser 750\n"
      "a/n1/n2 popuser:popuser 1750\na/n1/n3 popuser:popuser 1750\n",
      owners("a a/b a/b/c a/n1 a/n1/n2 a/n1/n3"));
}

struct LineCase {
  std::string content;
  size_t size;
  const char* shown;  // the child's report, then the value read in <>
};

const LineCase kLineCases[] = {
    {"", 16, "<>"},
    {" 1234567 \n", 8, "<1234567>"},
    {"12345678\n", 8, "The buffer too short\n<->"},
    // First lines longer than one read.
    {std::string(3000, ' ') + "word" + std::string(900, '\t') + "\nsecond\n", 16, "<word>"},
    {std::string(3000, 'x'), 16, "The buffer too short\n<->"},
};

TEST_F(FileUtil, ReadFirstLineTrimsAndChecksRoom) {
  for (const LineCase& c : kLineCases) {
    writeFile(dir_ / "line", c.content);
    auto r = runInChild([&] {
      char buffer[32] = "unchanged";
      int result = read_first_line(buffer, c.size, (dir_ / "line").c_str());
      std::printf("<%s>", result == 0 ? buffer : "-");
      return 0;
    });
    EXPECT_EQ(c.shown, r.out) << c.content.substr(0, 40);
  }
}

TEST_F(FileUtil, RemoveTreeNeverFollowsLinksAndGoesDeeperThanAPathCanName) {
  const std::string top = dir_ / "top", outside = dir_ / "outside";
  ASSERT_NE(0, make_dirs(outside.c_str()));
  writeFile(outside + "/keep", "x");
  ASSERT_EQ(0, symlink(outside.c_str(), (dir_ / "toplink").c_str()));
  ASSERT_EQ(0, mkdir(top.c_str(), 0755));
  writeFile(top + "/file", "x");
  const std::string level(200, 'd');
  int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_LE(0, fd);
  for (int i = 0; i < 30; ++i) {  // some 6,000 bytes of path below top
    ASSERT_EQ(0, mkdirat(fd, level.c_str(), 0755));
    ASSERT_EQ(0, mkfifoat(fd, "fifo", 0600));
    ASSERT_EQ(0, symlinkat(outside.c_str(), fd, "link"));
    int next = openat(fd, level.c_str(), O_RDONLY | O_DIRECTORY);
    close(fd);
    ASSERT_LE(0, fd = next);
  }
  close(fd);

  remove_tree(top.c_str(), kRemoveTop);
  remove_tree((dir_ / "toplink").c_str(), kRemoveTop);
  EXPECT_FALSE(pathExists(top));
  EXPECT_FALSE(pathExists(dir_ / "toplink"));
  EXPECT_EQ("x", readFile(outside + "/keep"));
}

TEST_F(FileUtil, SetOwnerByNameRefusesLinks) {
  const std::string file = dir_ / "file", link = dir_ / "link";
  writeFile(file, "x", 0644);
  ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
  RunResult r = runInChild([&] { return set_owner_by_name(link.c_str(), "popuser", 0600) + 1; });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("ERROR: unable to chown " + link +
                ": Too many levels of symbolic links\n"
                "\nSystem error 40: Too many levels of symbolic links\n",
            r.out);
  EXPECT_EQ("file root:root 644\n", owners("file"));
}

TEST_F(FileUtil, SetOwnerAndModeSaysWhichCallFailed) {
  const std::string file = dir_ / "file";
  writeFile(file, "x", 0644);
  const struct passwd* pop = getpwnam("popuser");
  ASSERT_NE(nullptr, pop);
  EXPECT_EQ(OWNER_MODE_SET, set_owner_and_mode(file.c_str(), pop->pw_uid, pop->pw_gid, 0640));
  EXPECT_EQ("file popuser:popuser 640\n", owners("file"));

  errno = 0;
  EXPECT_EQ(OWNER_MODE_CHOWN_FAILED,
            set_owner_and_mode((dir_ / "missing").c_str(), pop->pw_uid, pop->pw_gid, 0640));
  EXPECT_EQ(ENOENT, errno);
}

}  // namespace
