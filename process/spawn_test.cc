// The spawn routine with a real child: a failure in the child before exec
// comes back to the parent with its class and whole text, and the child's
// exit code names its kind.
#include "process/spawn.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <stdexcept>
#include <string>

#include "testing/test_support.h"

namespace {

using namespace zanth::process;

TEST(Spawn, HookExceptionComesBackWholeWithItsClassAndExitCode) {
  const std::string message(3000, 'm');  // spans several reads of the control pipe
  SpawnState state;
  spawnProcess(
      state, {"/bin/true"}, "/bin/true", nullptr, nullptr, false, false, false,
      [&] { throw std::runtime_error(message); }, kStreamInherit, kStreamInherit, kStreamInherit);
  EXPECT_EQ(message,
            testing_support::thrownWhat<std::runtime_error>([&] { checkChildReport(state); }));
  int status = -1;
  ASSERT_EQ(state.pid, waitpid(state.pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == kChildExitException) << status;
}

}  // namespace
