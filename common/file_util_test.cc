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
#include <filesystem>
#include <string>

#include "testing/child.h"

namespace {

using namespace testing_support;

class FileUtil : public ::testing::Test {
 protected:
  void SetUp() override { saved_umask_ = umask(022); }
  void TearDown() override { umask(saved_umask_); }

  static struct stat info(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
    return st;
  }

  TempDir dir_;
  mode_t saved_umask_ = 0;
};

TEST_F(FileUtil, MakeDirsCreatesMissingPartsAndStopsAtNonDirectory) {
  ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0700));
  EXPECT_NE(0, make_dirs((dir_ / "a/b//c/").c_str()));
  EXPECT_EQ(0700u, info(dir_ / "a").st_mode & 07777);
  EXPECT_EQ(0755u, info(dir_ / "a/b").st_mode & 07777);
  EXPECT_TRUE(S_ISDIR(info(dir_ / "a/b/c").st_mode));

  writeFile(dir_ / "f", "x");
  errno = 0;
  EXPECT_EQ(0, make_dirs((dir_ / "f/x/y").c_str()));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_FALSE(pathExists(dir_ / "f/x"));
}

TEST_F(FileUtil, MakeDirsOwnedLeavesExistingDirectoriesAlone) {
  const struct passwd* pop = getpwnam("popuser");
  ASSERT_NE(nullptr, pop);
  umask(0);
  ASSERT_EQ(0, mkdir((dir_ / "keep").c_str(), 0700));
  EXPECT_EQ(0, make_dirs_owned((dir_ / "keep/n1/n2").c_str(), pop->pw_uid, pop->pw_gid, 01750));
  EXPECT_EQ(0, make_dirs_owned((dir_ / "keep").c_str(), pop->pw_uid, pop->pw_gid, 01750));
  // Only the last level missing.
  EXPECT_EQ(0, make_dirs_owned((dir_ / "keep/n1/n3").c_str(), pop->pw_uid, pop->pw_gid, 01750));
  struct stat keep = info(dir_ / "keep"), n1 = info(dir_ / "keep/n1"), n2 = info(dir_ / "keep/n1/n2");
  EXPECT_EQ(0u, keep.st_uid);
  EXPECT_EQ(0700u, keep.st_mode & 07777);
  EXPECT_EQ(0750u, n1.st_mode & 07777);
  EXPECT_EQ(pop->pw_uid, n2.st_uid);
  EXPECT_EQ(01750u, n2.st_mode & 07777);
  struct stat n3 = info(dir_ / "keep/n1/n3");
  EXPECT_EQ(pop->pw_gid, n3.st_gid);
  EXPECT_EQ(01750u, n3.st_mode & 07777);
}

struct LineCase {
  std::string content;
  size_t size;
  const char* shown;  // the child's report, then the value read in <>
};

const LineCase kLineCases[] = {
    {"  word \t\nsecond\n", 16, "<word>"},
    {"abc", 16, "<abc>"},
    {"\n", 16, "<>"},
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

TEST_F(FileUtil, RemoveTreeNeverFollowsLinks) {
  std::string top = dir_ / "top", outside = dir_ / "outside";
  ASSERT_NE(0, make_dirs((top + "/a/b").c_str()));
  ASSERT_NE(0, make_dirs(outside.c_str()));
  writeFile(top + "/a/b/file", "x");
  writeFile(outside + "/keep", "x");
  ASSERT_EQ(0, symlink(outside.c_str(), (top + "/link").c_str()));
  ASSERT_EQ(0, symlink(outside.c_str(), (dir_ / "toplink").c_str()));

  const auto cwd = std::filesystem::current_path();
  remove_tree(top.c_str(), 0);
  remove_tree((dir_ / "toplink").c_str(), 1);
  EXPECT_EQ(cwd, std::filesystem::current_path());
  EXPECT_EQ("", shell("ls -A " + top).out);
  EXPECT_FALSE(pathExists(dir_ / "toplink"));
  EXPECT_EQ("x", readFile(outside + "/keep"));
  remove_tree(top.c_str(), 1);
  EXPECT_FALSE(pathExists(top));
}

TEST_F(FileUtil, RemoveTreeGoesDeeperThanAPathCanName) {
  const std::string top = dir_ / "deep";
  ASSERT_EQ(0, mkdir(top.c_str(), 0755));
  const std::string level(200, 'd');
  int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_LE(0, fd);
  for (int i = 0; i < 30; ++i) {  // some 6,000 bytes of path below top
    ASSERT_EQ(0, mkdirat(fd, level.c_str(), 0755));
    ASSERT_EQ(0, mkfifoat(fd, "fifo", 0600));
    int next = openat(fd, level.c_str(), O_RDONLY | O_DIRECTORY);
    close(fd);
    ASSERT_LE(0, fd = next);
  }
  close(fd);
  remove_tree(top.c_str(), 1);
  EXPECT_FALSE(pathExists(top));
}

TEST_F(FileUtil, SetOwnerByNameGivesRegularFilesAndRefusesLinks) {
  const std::string file = dir_ / "file", link = dir_ / "link";
  writeFile(file, "x", 0644);
  ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
  RunResult r = runInChild([&] {
    std::printf("<%d>", set_owner_by_name(link.c_str(), "popuser", 0600));
    std::printf("<%d>", set_owner_by_name(file.c_str(), "nosuchuser", 0600));
    return set_owner_by_name(file.c_str(), "popuser", 0600);
  });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("ERROR: unable to chown " + link + ": Too many levels of symbolic links\n"
            "\nSystem error 40: Too many levels of symbolic links\n<-1>"
            "user nosuchuser not found\n<-1>",
            r.out);
  EXPECT_EQ("popuser:popuser 600\n", shell("stat -c '%U:%G %a' " + file).out);
}

}  // namespace
