// Line-file editor: real edits of files in the sandbox (contents, owner
// and mode afterwards, no temporary file left, nothing planted followed).
#include "process/file_str.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "testing/test_support.h"

namespace {

using namespace testing_support;

class FileStr : public ::testing::Test {
 protected:
  // The directory's entries, sorted, one per line.
  std::string listing() { return shell("cd " + dir_.path() + " && ls -A | LC_ALL=C sort").out; }
  std::string ownerAndMode(const std::string& path) {
    return shell("stat -c '%u:%g %a' " + path).out;
  }

  TempDir dir_;
  const std::string file_ = dir_ / "f";
};

TEST_F(FileStr, AddsAtTheEndAndRemovesEveryEqualLineKeepingOwnerAndMode) {
  EXPECT_EQ(0, file_str(file_.c_str(), "b", FILE_STR_ADD));
  EXPECT_EQ("b\n", readFile(file_));
  EXPECT_EQ("0:0 600\n", ownerAndMode(file_));

  writeFile(file_, "a\nb\nc\nb", 0640);
  ASSERT_EQ(0, chown(file_.c_str(), 1234, 4321));
  EXPECT_EQ(0, file_str(file_.c_str(), "b\n", FILE_STR_REMOVE));
  EXPECT_EQ(0, file_str(file_.c_str(), "d", FILE_STR_ADD));
  EXPECT_EQ("a\nc\nd\n", readFile(file_));
  EXPECT_EQ("1234:4321 640\n", ownerAndMode(file_));

  writeFile(file_, "x");
  EXPECT_EQ(0, file_str(file_.c_str(), "y\n", FILE_STR_ADD));
  EXPECT_EQ("x\ny\n", readFile(file_));
}

TEST_F(FileStr, NeverReadsOrWritesThroughWhatWasPlantedAtItsNames) {
  writeFile(dir_ / "secret", "root:x:0:\n", 0600);
  ASSERT_EQ(0, symlink("secret", file_.c_str()));
  errno = 0;
  EXPECT_EQ(-1, file_str(file_.c_str(), "&a@b.example", FILE_STR_ADD));
  EXPECT_EQ(ELOOP, errno);

  ASSERT_EQ(0, unlink(file_.c_str()));
  ASSERT_EQ(0, link((dir_ / "secret").c_str(), file_.c_str()));
  EXPECT_EQ(-1, file_str(file_.c_str(), "root:x:0:", FILE_STR_REMOVE));
  EXPECT_EQ(EMLINK, errno);

  ASSERT_EQ(0, unlink(file_.c_str()));
  ASSERT_EQ(0, mkfifo(file_.c_str(), 0600));
  EXPECT_EQ(-1, file_str(file_.c_str(), "a", FILE_STR_ADD));
  EXPECT_EQ(EINVAL, errno);

  ASSERT_EQ(0, unlink(file_.c_str()));
  EXPECT_EQ(-1, file_str(file_.c_str(), "a\n| /bin/sh", FILE_STR_ADD));
  EXPECT_EQ(EINVAL, errno);

  EXPECT_EQ("secret\n", listing());  // no temporary file after the failures
  // A link planted at the temporary name is replaced, not written through.
  ASSERT_EQ(0, symlink("secret", (file_ + ".tmp").c_str()));
  EXPECT_EQ(0, file_str(file_.c_str(), "a", FILE_STR_ADD));
  EXPECT_EQ("a\n", readFile(file_));
  EXPECT_EQ("f\nsecret\n", listing());
  EXPECT_EQ("root:x:0:\n", readFile(dir_ / "secret"));
}

}  // namespace
