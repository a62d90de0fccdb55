// The descriptor routines on real descriptors: a close failure reaches the
// caller with its step, and closing from a number keeps exactly the
// standard streams and the one descriptor asked for.
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

TEST(Descriptors, CloseFromKeepsOnlyTheStandardStreamsAndTheKeptOne) {
  RunResult r = runInChild([] {
    int fds[4];
    for (int& fd : fds) fd = ::open("/dev/null", O_RDONLY);
    if (zanth::setNonBlocking(fds[2]) != 0 || !(::fcntl(fds[2], F_GETFL) & O_NONBLOCK)) return 3;
    zanth::closeFrom(3, fds[2]);
    for (int fd = 0; fd < 64; ++fd)
      if ((::fcntl(fd, F_GETFD) != -1) != (fd < 3 || fd == fds[2])) return 10 + fd;
    return 0;
  });
  EXPECT_EQ(0, r.exitCode()) << r.err;
}

}  // namespace
