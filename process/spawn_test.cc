// The spawn routine with real programs: a failure before exec surfaces in
// the parent with its class and text, and the child's exit code names its
// kind.
#include "process/spawn.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

#include "common/errors.h"
#include "testing/test_support.h"

namespace {

using namespace zanth::process;
using testing_support::thrownWhat;

TEST(Spawn, ChildExitCodeAndParentExceptionNameTheKindOfFailure) {
  using Thrown = std::function<void()>;
  const std::string longMessage(3000, 'm');  // spans several reads of the control pipe
  const struct {
    std::string program;
    Thrown hook;
    int exitCode;
    std::string (*whatOf)(Thrown);  // catches only the class the parent must throw
    std::string what;
  } cases[] = {
      {"/nonexistent", [] {}, 67, &thrownWhat<zanth::SystemError, Thrown>,
       "execv: " + std::string(std::strerror(ENOENT))},
      {"/bin/true", [&] { throw std::runtime_error(longMessage); }, 66,
       &thrownWhat<std::runtime_error, Thrown>, longMessage},
  };
  for (const auto& c : cases) {
    SpawnState state;
    spawnProcess(state, {c.program}, c.program, nullptr, nullptr, false, false, false,
                 boost::function<void()>(c.hook), kStreamInherit, kStreamInherit, kStreamInherit);
    EXPECT_EQ(c.what, c.whatOf([&] { checkChildReport(state); }));
    int status = -1;
    ASSERT_EQ(state.pid, waitpid(state.pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.exitCode) << c.what << status;
  }
}

}  // namespace
