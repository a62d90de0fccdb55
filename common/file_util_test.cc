// File helpers on real directories: what exists afterwards, with which
// owner and mode, and the exact reports, taken from forked children where
// the helper ends the process.
#include "common/file_util.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "testing/child.h"
#include "testing/test_support.h"

namespace {

using testing_support::pathExists;
using testing_support::readFile;
using testing_support::runInChild;
using testing_support::shell;
using testing_support::TempDir;
using testing_support::writeFile;

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

TEST_F(FileUtil, MakeDirsCreatesMissingPartsOnly) {
  ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0700));
  EXPECT_NE(0, make_dirs((dir_ / "a/b//c/").c_str()));
  EXPECT_EQ(0700u, info(dir_ / "a").st_mode & 07777);
  EXPECT_EQ(0755u, info(dir_ / "a/b").st_mode & 07777);
  EXPECT_TRUE(S_ISDIR(info(dir_ / "a/b/c").st_mode));
  EXPECT_NE(0, make_dirs((dir_ / "a/b/c").c_str()));
}

TEST_F(FileUtil, MakeDirsStopsAtNonDirectory) {
  writeFile(dir_ / "f", "x");
  errno = 0;
  EXPECT_EQ(0, make_dirs((dir_ / "f/x/y").c_str()));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_FALSE(pathExists(dir_ / "f/x"));
  errno = 0;
  EXPECT_EQ(0, make_dirs((dir_ / "f").c_str()));
  EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(FileUtil, MakeDirsOwnedLeavesExistingDirectoriesAlone) {
  const struct passwd* pop = getpwnam("popuser");
  ASSERT_NE(nullptr, pop);
  umask(0);
  ASSERT_EQ(0, mkdir((dir_ / "keep").c_str(), 0700));
  EXPECT_EQ(0, make_dirs_owned((dir_ / "keep/n1/n2").c_str(), pop->pw_uid, pop->pw_gid, 01750));
  EXPECT_EQ(0, make_dirs_owned((dir_ / "keep").c_str(), pop->pw_uid, pop->pw_gid, 01750));

  struct stat keep = info(dir_ / "keep"), n1 = info(dir_ / "keep/n1"),
              n2 = info(dir_ / "keep/n1/n2");
  EXPECT_EQ(0u, keep.st_uid);
  EXPECT_EQ(0700u, keep.st_mode & 07777);
  EXPECT_EQ(pop->pw_uid, n1.st_uid);
  EXPECT_EQ(pop->pw_gid, n1.st_gid);
  EXPECT_EQ(0750u, n1.st_mode & 07777);
  EXPECT_EQ(pop->pw_uid, n2.st_uid);
  EXPECT_EQ(01750u, n2.st_mode & 07777);
}

TEST_F(FileUtil, MakeDirsOwnedEndsProcessWhenMkdirFails) {
  writeFile(dir_ / "f", "x");
  auto r = runInChild([&] { return make_dirs_owned((dir_ / "f/a/b").c_str(), 0, 0, 0755) + 7; });
  std::string expected = "Cannot create directory " + (dir_ / "f/a") +
                         ": Not a directory\nSystem error 20: Not a directory\n";
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(expected, r.out);
  EXPECT_EQ(expected, r.err);
}

TEST_F(FileUtil, CreateFilesTruncateOrKeep) {
  writeFile(dir_ / "full", "content");
  writeFile(dir_ / "kept", "content");
  EXPECT_EQ(0, create_truncate_file((dir_ / "full").c_str()));
  EXPECT_EQ(0, create_file((dir_ / "kept").c_str()));
  EXPECT_EQ(0, create_file((dir_ / "new").c_str()));
  EXPECT_EQ("", readFile(dir_ / "full"));
  EXPECT_EQ("content", readFile(dir_ / "kept"));
  EXPECT_EQ(0644u, info(dir_ / "new").st_mode & 07777);

  std::string missing = dir_ / "no/file";
  auto r = runInChild([&] {
    return create_truncate_file(missing.c_str()) == -1 && create_file(missing.c_str()) == -1 ? 0
                                                                                             : 3;
  });
  EXPECT_EQ(0, r.exitCode());
  std::string cause = ": No such file or directory\nSystem error 2: No such file or directory\n";
  EXPECT_EQ("Unable to truncate or create file " + missing + cause + "Unable to create file " +
                missing + cause,
            r.out);
}

struct LineCase {
  const char* content;
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
    {"a\n", 0, "The buffer too short\n<->"},
};

TEST_F(FileUtil, ReadFirstLineTrimsAndChecksRoom) {
  for (const LineCase& c : kLineCases) {
    writeFile(dir_ / "line", c.content);
    auto r = runInChild([&] {
      char buffer[32];
      int result = read_first_line(buffer, c.size, (dir_ / "line").c_str());
      std::printf("<%s>", result == 0 ? buffer : "-");
      return 0;
    });
    EXPECT_EQ(c.shown, r.out) << c.content;
  }

  char buffer[8];
  std::memset(buffer, 'x', sizeof buffer);
  writeFile(dir_ / "empty", "");
  EXPECT_EQ(0, read_first_line(buffer, sizeof buffer, (dir_ / "empty").c_str()));
  EXPECT_EQ(std::string(sizeof buffer, '\0'), std::string(buffer, sizeof buffer));
}

TEST_F(FileUtil, ReadFirstLineReportsUnreadableFiles) {
  std::string missing = dir_ / "missing";
  auto r = runInChild([&] {
    char buffer[8];
    return read_first_line(buffer, sizeof buffer, missing.c_str()) +
           read_first_line(buffer, sizeof buffer, dir_.path().c_str()) + 2;
  });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("Unable to open file " + missing +
                ": No such file or directory\n\nSystem error 2: No such file or directory\n"
                "Unable to read line from file: " +
                dir_.path() + "\n\nSystem error 21: Is a directory\n",
            r.err);
}

TEST_F(FileUtil, RemoveTreeNeverFollowsLinks) {
  std::string top = dir_ / "top", outside = dir_ / "outside";
  ASSERT_NE(0, make_dirs((top + "/a/b").c_str()));
  ASSERT_NE(0, make_dirs(outside.c_str()));
  writeFile(top + "/a/b/file", "x");
  writeFile(top + "/c", "x");
  writeFile(outside + "/keep", "x");
  ASSERT_EQ(0, symlink(outside.c_str(), (top + "/link").c_str()));
  ASSERT_EQ(0, symlink("/nonexistent", (top + "/a/dead").c_str()));
  ASSERT_EQ(0, symlink(outside.c_str(), (dir_ / "toplink").c_str()));

  auto r = runInChild([&] {
    if (chdir(dir_.path().c_str()) != 0) return 3;
    remove_tree("top", 0);
    remove_tree((dir_ / "toplink").c_str(), 1);
    remove_tree((dir_ / "missing").c_str(), 1);
    char cwd[PATH_MAX];
    return getcwd(cwd, sizeof cwd) != nullptr && dir_.path() == cwd ? 0 : 4;
  });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("", r.out + r.err);
  EXPECT_EQ("", shell("ls -A " + top).out);
  EXPECT_FALSE(pathExists(top + "/c"));
  EXPECT_FALSE(pathExists(top + "/link"));
  EXPECT_FALSE(pathExists(dir_ / "toplink"));
  EXPECT_EQ("x", readFile(outside + "/keep"));

  ASSERT_NE(0, make_dirs((top + "/d/e").c_str()));
  writeFile(top + "/d/e/file", "x");
  remove_tree(top.c_str(), 1);
  EXPECT_FALSE(pathExists(top));
}

TEST_F(FileUtil, RemoveTreeEndsProcessOnFailure) {
  std::string fifo = dir_ / "fifo", mnt = dir_ / "top/mnt";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  auto r = runInChild([&] {
    remove_tree(fifo.c_str(), 1);
    return 0;
  });
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("Unable to open dir " + fifo + ": Not a directory\n\nSystem error 20: Not a directory\n",
            r.out);

  // A mount point cannot be removed; its name is reported as met inside.
  ASSERT_NE(0, make_dirs(mnt.c_str()));
  ASSERT_EQ(0, mount("mxkeep-test", mnt.c_str(), "tmpfs", 0, nullptr)) << std::strerror(errno);
  r = runInChild([&] {
    remove_tree((dir_ / "top").c_str(), 1);
    return 0;
  });
  umount(mnt.c_str());
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("Unable to remove dir mnt: Device or resource busy\n\n"
            "System error 16: Device or resource busy\n",
            r.err);
}

}  // namespace
