// The descriptor routines on real descriptors: a close failure reaches the
// caller with its step.
#include "common/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "testing/child.h"

namespace {

using namespace testing_support;

TEST(Descriptors, CloseOrThrowNamesTheStepAndMarksTheDescriptorClosed) {
  int fd = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ::close(fd));
  EXPECT_EQ("control pipe close: Bad file descriptor",
            thrownWhat<zanth::SystemError>([&] { zanth::closeOrThrow(fd, "control pipe close"); }));
  EXPECT_EQ(-1, fd);
}

}  // namespace
