// The descriptor routines on real pipes and descriptors: a write far larger
// than a pipe's buffer arrives whole, a close failure reaches the caller, and
// closing from a number keeps exactly the one descriptor asked for.
#include "common/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include "testing/child.h"

namespace {

using namespace testing_support;

TEST(Descriptors, WriteFullyOutlastsShortWritesAndReportsAClosedReader) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  const std::string data(3 * 1024 * 1024, 'm');  // many times a pipe's buffer
  std::string got;
  std::thread reader([&] {
    char block[7000];  // odd reads keep the writer's counts uneven
    for (ssize_t n; (n = ::read(ends[0], block, sizeof block)) > 0;) got.append(block, n);
  });
  EXPECT_EQ(0, zanth::writeFully(ends[1], data.data(), data.size()));
  ::close(ends[1]);
  reader.join();
  ::close(ends[0]);
  EXPECT_EQ(data, got);

  RunResult r = runInChild([] {
    ::signal(SIGPIPE, SIG_IGN);  // in the child only: the test process keeps its own
    int again[2];
    if (::pipe(again) != 0) return 2;
    ::close(again[0]);
    return zanth::writeFully(again[1], "x", 1) == -1 && errno == EPIPE ? 0 : 1;
  });
  EXPECT_EQ(0, r.exitCode()) << r.err;
}

TEST(Descriptors, CloseOrThrowNamesTheStepAndMarksTheDescriptorClosed) {
  int fd = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ::close(fd));
  EXPECT_EQ("control pipe close: Bad file descriptor",
            thrownWhat<zanth::SystemError>([&] { zanth::closeOrThrow(fd, "control pipe close"); }));
  EXPECT_EQ(-1, fd);
  EXPECT_EQ("<nothing thrown>",
            thrownWhat<zanth::SystemError>([&] { zanth::closeOrThrow(fd, "again"); }));
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
