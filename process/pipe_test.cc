// Pipelines with real programs: megabytes on every stream at once, and
// clean-up after a failed run.
#include "process/pipe.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>

#include "process/catcher.h"
#include "testing/test_support.h"

namespace {

using namespace zanth::process;
namespace fs = std::filesystem;
using testing_support::thrownWhat;

BlockConsumer appendTo(std::string& into) {
  return [&into](const std::vector<char>& block) { into.append(block.begin(), block.end()); };
}

ProcessSpec sh(const std::string& script) { return ProcessSpec("/bin/sh", "-c", script); }

TEST(Pipe, TwoProcessesMoveMegabytesOnEveryStreamAtOnce) {
  std::string input(6 << 20, '\0');
  for (size_t i = 0; i < input.size(); ++i) input[i] = static_cast<char>(i % 251);

  std::string out, err;
  size_t fed = 0;
  bool streamed = false;
  ProcessSpec first = sh("tee /dev/fd/2");
  first.stderrSetting = kStreamPipe;
  first.stderrConsumer = appendTo(err);
  Pipe pipe;
  pipe.addProcess(first);
  pipe.addProcess(sh("cat; exit 3"));
  pipe.setInput(kStreamPipe, [&](std::vector<char>& buffer) {
    size_t n = std::min<size_t>(100000, input.size() - fed);
    buffer.insert(buffer.end(), input.begin() + fed, input.begin() + fed + n);
    return (fed += n) < input.size();
  });
  pipe.setOutput(kStreamPipe, [&](const std::vector<char>& block) {
    streamed = streamed || fed < input.size();
    EXPECT_LE(block.size(), CommonFlags::kDefaultReadBlock);
    out.append(block.begin(), block.end());
  });
  EXPECT_EQ(3 << 8, pipe.run()) << "the raw wait status of the last process";
  for (const std::string* got : {&out, &err})
    EXPECT_TRUE(*got == input) << got->size() << " bytes of " << input.size();
  EXPECT_TRUE(streamed) << "output must arrive while input is still being fed";
}

TEST(Pipe, FailuresLeaveNoCatcherHandlerOrDescriptorBehind) {
  const std::string noEntry = std::strerror(ENOENT);
  const std::pair<std::string, std::function<void(ProcessSpec&)>> cases[] = {
      {"execv: " + noEntry, [](ProcessSpec& s) { s = ProcessSpec("/nonexistent/program"); }},
      {"cwd chdir: " + noEntry, [](ProcessSpec& s) { s.workingDirectory = "/nonexistent"; }},
      // The consumer gives up while the child still runs.
      {"stop", [](ProcessSpec& s) { s = sh("echo $$; exec sleep 100"); }},
  };
  auto openDescriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto descriptors = openDescriptors();
  for (const auto& c : cases) {
    ProcessSpec spec = sh("exit 0");
    c.second(spec);
    Pipe pipe;
    pipe.addProcess(spec);
    pid_t child = 0;
    pipe.setOutput(kStreamPipe, [&child](const std::vector<char>& block) {
      child = std::stoi(std::string(block.begin(), block.end()));
      throw std::runtime_error("stop");
    });
    EXPECT_EQ(c.first, thrownWhat<std::runtime_error>([&] { pipe.run(); }));
    // Stopped and reaped before the failure goes on: not even a zombie.
    if (child > 0) {
      EXPECT_TRUE(::kill(child, 0) == -1 && errno == ESRCH) << c.first;
    }
    EXPECT_EQ(nullptr, ProcessSetCatcher::installed()) << c.first;
    EXPECT_EQ(descriptors, openDescriptors()) << c.first;
    struct sigaction now {};
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(SIG_DFL, now.sa_handler) << c.first;
  }
}

}  // namespace
