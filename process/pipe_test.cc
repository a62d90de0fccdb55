// Pipelines and the spawn routine with real programs: megabytes on every
// stream at once, wait statuses, stream settings, failures before exec
// surfacing in the parent, the control-pipe records, and clean-up.
#include "process/pipe.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>

#include "common/errors.h"
#include "common/syscall.h"
#include "process/catcher.h"
#include "testing/test_support.h"

namespace {

using namespace zanth::process;
using namespace std::string_literals;

BlockConsumer appendTo(std::string& into) {
  return [&into](const std::vector<char>& block) { into.append(block.begin(), block.end()); };
}

// Hands out `data` in chunks; sets *done once it has reported the end.
BlockProducer feed(const std::string& data, size_t chunk, bool* done) {
  auto offset = std::make_shared<size_t>(0);
  return [&data, chunk, offset, done](std::vector<char>& buffer) {
    size_t n = std::min(chunk, data.size() - *offset);
    buffer.insert(buffer.end(), data.begin() + *offset, data.begin() + *offset + n);
    *offset += n;
    if (*offset < data.size()) return true;
    *done = true;
    return false;
  };
}

ProcessSpec sh(const std::string& script) { return ProcessSpec("/bin/sh", "-c", script); }

std::string outputOf(const ProcessSpec& spec) {
  std::string out;
  Pipe pipe;
  pipe.addProcess(spec);
  pipe.setOutput(kStreamPipe, appendTo(out));
  EXPECT_EQ(0, pipe.run()) << spec.arguments.back();
  return out;
}

int openDescriptors() {
  int count = 0;
  zanth::UniqueDir dir(opendir("/proc/self/fd"));
  while (readdir(dir.get()) != nullptr) ++count;
  return count;
}

TEST(Pipe, TwoProcessesMoveMegabytesOnEveryStreamAtOnce) {
  std::string input(6 << 20, '\0');
  std::mt19937 random(42);
  for (char& c : input) c = static_cast<char>(random());

  std::string out, err1, err2;
  bool inputDone = false, streamed = false;
  ProcessSpec first = sh("tee /dev/fd/2");
  first.stderrSetting = kStreamPipe;
  first.stderrConsumer = appendTo(err1);
  ProcessSpec second = sh("tee /dev/fd/2; exit 3");
  second.stderrSetting = kStreamPipe;
  second.stderrConsumer = appendTo(err2);
  Pipe pipe;
  pipe.addProcess(first);
  pipe.addProcess(second);
  pipe.setInput(kStreamPipe, feed(input, 100000, &inputDone));
  pipe.setOutput(kStreamPipe, [&](const std::vector<char>& block) {
    streamed = streamed || !inputDone;
    EXPECT_LE(block.size(), CommonFlags::kDefaultReadBlock);
    out.append(block.begin(), block.end());
  });
  int status = pipe.run();

  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
  ASSERT_EQ(input.size(), out.size());
  ASSERT_EQ(input.size(), err1.size());
  ASSERT_EQ(input.size(), err2.size());
  EXPECT_TRUE(out == input && err1 == input && err2 == input);
  EXPECT_TRUE(streamed) << "output must arrive while input is still being fed";
}

TEST(Pipe, ReturnsTheStatusOfTheLastProcess) {
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"exit 5"}, 5 << 8},
      {{"exit 7", "exit 0"}, 0},
      {{"exit 0", "cat; exit 9"}, 9 << 8},
      {{"kill -TERM $$"}, SIGTERM},
  };
  for (const auto& c : cases) {
    Pipe pipe;
    for (const std::string& script : c.first) pipe.addProcess(sh(script));
    EXPECT_EQ(c.second, pipe.run()) << c.first.back();
  }
}

TEST(Pipe, ChildGetsItsStreamsDirectoryEnvironmentAndTheCallersMask) {
  testing_support::TempDir dir;
  testing_support::writeFile(dir / "in", "from a file\n");
  zanth::UniqueFd in(open((dir / "in").c_str(), O_RDONLY));
  zanth::UniqueFd err(open((dir / "err").c_str(), O_WRONLY | O_CREAT, 0644));
  ProcessSpec cat = sh("cat; echo oops >&2");
  cat.stderrSetting = err.get();
  std::string out;
  Pipe given;
  given.addProcess(cat);
  given.setInput(in.get());
  given.setOutput(kStreamPipe, appendTo(out));
  EXPECT_EQ(0, given.run());
  EXPECT_EQ("from a file\n", out);
  EXPECT_EQ("oops\n", testing_support::readFile(dir / "err"));
  EXPECT_NE(-1, fcntl(in.get(), F_GETFD)) << "the caller's descriptor stays open";

  Pipe nulls;
  nulls.addProcess(sh("cat; echo after"));
  nulls.setInput(kStreamNull);
  nulls.setOutput(kStreamNull, [](const std::vector<char>&) { ADD_FAILURE(); });
  EXPECT_EQ(0, nulls.run());

  ProcessSpec pwd("/bin/pwd");
  pwd.workingDirectory = dir.path();
  EXPECT_EQ(dir.path() + "\n", outputOf(pwd));
  char greeting[] = "GREETING=hello";
  char* environment[] = {greeting, nullptr};
  ProcessSpec env = sh("printf %s \"$GREETING$FROM_HOOK\"");
  env.environment = environment;
  EXPECT_EQ("hello", outputOf(env));
  ProcessSpec hooked = sh("printf %s \"$GREETING$FROM_HOOK\"");
  hooked.preExec = [] { setenv("FROM_HOOK", "yes", 1); };
  EXPECT_EQ("yes", outputOf(hooked));
  EXPECT_EQ("searched", outputOf(ProcessSpec("printf", "%s", "searched")));

  std::istringstream status(testing_support::readFile("/proc/self/status"));
  std::string mask;
  while (std::getline(status, mask) && mask.compare(0, 7, "SigBlk:") != 0) continue;
  EXPECT_EQ(mask + "\n", outputOf(ProcessSpec("/bin/grep", "SigBlk", "/proc/self/status")));

  zanth::UniqueFd inherited(open("/dev/null", O_RDONLY));
  ProcessSpec probe = sh("[ -e /proc/self/fd/" + std::to_string(inherited.get()) +
                         " ] && echo open || echo closed");
  EXPECT_EQ("open\n", outputOf(probe));
  probe.closeDescriptors = true;
  EXPECT_EQ("closed\n", outputOf(probe));
}

TEST(Pipe, FailuresLeaveNoCatcherHandlerOrDescriptorBehind) {
  static char variable[] = "A=1";
  static char* environment[] = {variable, nullptr};
  const std::string noEntry = std::strerror(ENOENT);
  const std::pair<std::string, std::function<void(ProcessSpec&)>> cases[] = {
      {"execv: " + noEntry, [](ProcessSpec& s) { s = ProcessSpec("/nonexistent/program"); }},
      {"execvp: " + noEntry, [](ProcessSpec& s) { s = ProcessSpec("mxkeep-no-such-program"); }},
      {"execve: " + noEntry, [](ProcessSpec& s) {
         s = ProcessSpec("/nonexistent/program");
         s.environment = environment;
       }},
      {"cwd chdir: " + noEntry, [](ProcessSpec& s) { s.workingDirectory = "/nonexistent"; }},
      {"stop", [](ProcessSpec& s) { s = sh("echo one; sleep 1; echo two"); }},
  };
  const int descriptors = openDescriptors();
  for (const auto& c : cases) {
    ProcessSpec spec = sh("exit 0");
    c.second(spec);
    Pipe pipe;
    pipe.addProcess(spec);
    pipe.setOutput(kStreamPipe, [](const std::vector<char>&) { throw std::runtime_error("stop"); });
    EXPECT_EQ(c.first, testing_support::thrownWhat<std::runtime_error>([&] { pipe.run(); }));
    EXPECT_EQ(nullptr, ProcessSetCatcher::installed()) << c.first;
    EXPECT_EQ(descriptors, openDescriptors()) << c.first;
    struct sigaction now {};
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(SIG_DFL, now.sa_handler) << c.first;
  }

  std::string out;
  const std::string input(8 << 20, 'x');
  bool done = false;
  Pipe early;
  early.addProcess(ProcessSpec("/usr/bin/head", "-c", "10"));
  early.setInput(kStreamPipe, feed(input, 1 << 20, &done));
  early.setOutput(kStreamPipe, appendTo(out));
  EXPECT_EQ("write: "s + std::strerror(EPIPE),
            testing_support::thrownWhat<zanth::SystemError>([&] { early.run(); }))
      << "a reader quitting early is an error, not the death of this process";
  struct sigaction now {};
  sigaction(SIGPIPE, nullptr, &now);
  EXPECT_EQ(SIG_DFL, now.sa_handler);
}

TEST(Pipe, MisuseIsRefused) {
  Pipe pipe;
  EXPECT_EQ("No processes to launch were assigned so far",
            testing_support::thrownWhat<std::logic_error>([&] { pipe.run(); }));
  pipe.addProcess(sh("exit 0"));
  pipe.run();
  EXPECT_EQ("the pipe has been launched already", testing_support::thrownWhat<std::logic_error>([&] { pipe.run(); }));
  EXPECT_EQ("adding processes to the launched pipe is prohibited",
            testing_support::thrownWhat<std::logic_error>([&] { pipe.addProcess(sh("exit 0")); }));

  Pipe unset;
  unset.addProcess(sh("echo text"));
  unset.setOutput(kStreamPipe);
  EXPECT_EQ("call to empty boost::function", testing_support::thrownWhat<std::exception>([&] { unset.run(); }));

  const std::pair<std::string, std::function<void(Pipe&, ProcessSpec&)>> settings[] = {
      {"invalid FD for stdin", [](Pipe& p, ProcessSpec&) { p.setInput(-5); }},
      {"invalid FD for stdout", [](Pipe& p, ProcessSpec&) { p.setOutput(-5); }},
      {"invalid FD for stderr", [](Pipe&, ProcessSpec& s) { s.stderrSetting = -5; }},
  };
  for (const auto& setting : settings) {
    Pipe bad;
    ProcessSpec spec = sh("exit 0");
    setting.second(bad, spec);
    bad.addProcess(spec);
    EXPECT_EQ(setting.first, testing_support::thrownWhat<std::invalid_argument>([&] { bad.run(); }));
  }
  SpawnState state;  // at process level -1 is no setting at all
  EXPECT_EQ("invalid FD for stdin", testing_support::thrownWhat<std::invalid_argument>([&] {
              spawnProcess(state, {"/bin/true"}, "/bin/true", nullptr, nullptr, false, false,
                           false, {}, kStreamUnset, kStreamInherit, kStreamInherit);
            }));
}

// Spawns `program` with a pre-exec hook that gets the spawn's state; returns
// the child's exit code and stores what checkChildReport threw in *caught.
int spawnWithHook(const boost::function<void(SpawnState&)>& hook, std::exception_ptr* caught,
                  const std::string& program = "/bin/true") {
  SpawnState state;
  boost::function<void()> preExec = [&state, &hook] { hook(state); };
  spawnProcess(state, {program}, program, nullptr, nullptr, false, false, false, preExec,
               kStreamInherit, kStreamInherit, kStreamInherit);
  *caught = nullptr;
  try {
    checkChildReport(state);
  } catch (...) {
    *caught = std::current_exception();
  }
  int status = -1;
  waitpid(state.pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <class E>
std::string whatOf(const std::exception_ptr& caught) {
  return testing_support::thrownWhat<E>([&] { if (caught) std::rethrow_exception(caught); });
}

TEST(Spawn, ChildExitCodeAndParentExceptionNameTheKindOfFailure) {
  std::exception_ptr caught;
  EXPECT_EQ(67, spawnWithHook([](SpawnState&) {}, &caught, "/nonexistent"));
  EXPECT_EQ("execv: "s + std::strerror(ENOENT), whatOf<zanth::SystemError>(caught));
  EXPECT_EQ(66, spawnWithHook([](SpawnState&) { throw std::runtime_error("hook"); }, &caught));
  EXPECT_EQ("hook", whatOf<std::runtime_error>(caught));
  EXPECT_EQ(66, spawnWithHook([](SpawnState&) { throw std::logic_error("lost"); }, &caught));
  EXPECT_EQ("std::exception", whatOf<std::exception>(caught));
  EXPECT_EQ(65, spawnWithHook([](SpawnState&) { throw 42; }, &caught));
  EXPECT_EQ("unknown error", whatOf<std::runtime_error>(caught));
}

TEST(Spawn, ControlPipeRecordsAreParsedAcrossReads) {
  auto sending = [](const std::string& bytes) {
    return [bytes](SpawnState& state) {
      if (write(state.controlWrite, bytes.data(), bytes.size()) < 0) _exit(1);
    };
  };
  std::exception_ptr caught;
  std::ostringstream log;
  std::streambuf* saved = std::clog.rdbuf(log.rdbuf());
  EXPECT_EQ(0, spawnWithHook(sending("hello\0"s), &caught));
  std::clog.rdbuf(saved);
  EXPECT_EQ("child output: hello\n", log.str());
  EXPECT_FALSE(caught);

  spawnWithHook(sending("ET: SystemError\0EM: step\0EC: abc\0"s), &caught);
  EXPECT_EQ("step: "s + std::strerror(EINVAL), whatOf<zanth::SystemError>(caught));
  spawnWithHook(sending("ET: Weird\0"s), &caught);
  EXPECT_EQ("std::bad_exception", whatOf<std::bad_exception>(caught));
  spawnWithHook(sending("ET: std::runtime_error\0"s), &caught);
  EXPECT_EQ("an error in child process", whatOf<std::runtime_error>(caught));
  const std::string longMessage(3000, 'm');  // spans several 1024-byte reads
  spawnWithHook(sending("ET: std::runtime_error\0EM: "s + longMessage + '\0'), &caught);
  EXPECT_EQ(longMessage, whatOf<std::runtime_error>(caught));

  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  reportChildError(fds[1], "SystemError", "execv: gone", 2);
  reportChildError(fds[1], "std::exception", "");
  close(fds[1]);
  char wire[256];
  ssize_t n = read(fds[0], wire, sizeof wire);
  close(fds[0]);
  EXPECT_EQ("ET: SystemError\0EM: execv: gone\0EC: 2\0ET: std::exception\0EM: \0"s,
            std::string(wire, n > 0 ? n : 0));
}

TEST(WriteSome, FullPipeTakesNothingAndErrnoSurvives) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_NONBLOCK));
  std::string data(200000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 251);
  errno = ERANGE;
  size_t first = writeSome(fds[1], data.data(), data.size());
  EXPECT_TRUE(first > 0 && first < data.size()) << first;
  EXPECT_EQ(0u, writeSome(fds[1], data.data() + first, data.size() - first));
  EXPECT_EQ(ERANGE, errno);
  std::string back(first, '\0');
  EXPECT_EQ(static_cast<ssize_t>(first), read(fds[0], &back[0], first + 1));
  EXPECT_EQ(data.substr(0, first), back);
  close(fds[0]);
  close(fds[1]);
}

}  // namespace
