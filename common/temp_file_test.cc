// Temporary files on real disk: what is left at both names after a
// replacement that succeeds, one abandoned, one whose rename fails, and one
// whose name was taken.
#include "common/temp_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "testing/test_support.h"

namespace {

using namespace testing_support;

class TempFileTest : public ::testing::Test {
 protected:
  int create() { return ::open(tmp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600); }
  std::string listing() { return shell("ls -A " + dir_.path() + " | LC_ALL=C sort").out; }

  TempDir dir_;
  const std::string tmp_ = dir_ / "f.tmp";
  const std::string file_ = dir_ / "f";
};

TEST_F(TempFileTest, OnlyARenamedFileOutlivesItsOwner) {
  const struct {
    const char* name;
    bool sync, rename;
    std::string target;  // what stands at file_'s place: a file or a full directory
    std::string left;
  } cases[] = {
      {"replaced", true, true, "old", "f\n"},
      {"abandoned", false, false, "old", "f\n"},
      {"rename refused", true, true, "dir", "f\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(0, shell("rm -rf " + file_ + " " + tmp_).exitCode());
    if (c.target == "dir")
      ASSERT_EQ(0, shell("mkdir -p " + file_ + "/x").exitCode());
    else
      writeFile(file_, c.target);
    {
      zanth::TempFile tmp(create(), tmp_.c_str());
      ASSERT_GE(tmp.fd(), 0);
      ASSERT_EQ(0, zanth::writeFully(tmp.fd(), "new", 3));
      if (c.sync) {
        EXPECT_EQ(0, tmp.sync());
      }
      if (c.rename) {
        EXPECT_EQ(c.target == "dir" ? -1 : 0, tmp.renameTo(file_.c_str()));
      }
    }
    EXPECT_EQ(c.left, listing());
    if (c.target != "dir") {
      EXPECT_EQ(c.rename ? "new" : "old", readFile(file_));
    }
  }
}

TEST_F(TempFileTest, ATakenNameIsNotRemoved) {
  writeFile(tmp_, "someone else's");
  { zanth::TempFile tmp(create(), tmp_.c_str()); }
  EXPECT_EQ("someone else's", readFile(tmp_));
}

}  // namespace
