// The real binary in the sandbox on a server's bad days, one fault at a
// time from its real cause: a full file system, planted links, closed
// standard streams, termination signals at moments the test picks (a
// stand-in postmap or refresh program that waits on a fifo), SIGKILL at
// every postmap call followed by the same rename again, and two renames
// at once. Each case checks the exact output and every place afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <string>
#include <vector>

#include "testing/auth_testing.h"
#include "mail/handlers/handler_actions.h"
#include "mail/handlers/handler_store.h"
#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;
namespace fs = boost::filesystem;
using Records = std::vector<std::string>;

const char* const kMaps[] = {kVirtualDomainsMap, kVirtualMap, kVmailboxMap};
const std::string kSpool = "/var/spool/postfix/zanth";
const std::string kMailNames = "/var/qmail/mailnames/";
const std::string kPluginDir = "/usr/lib/zanth-9.0/domain_rename/";
const std::string kRefresh = "/usr/lib/zanth-9.0/handlers-tmpfs";
const std::string kReady = "/run/ready", kGo = "/run/go";
const std::string kFatal = "Fatal error: ";
const std::string kServicesFailed =
    kFatal + "zanth::mail::postfix::PostfixError(unable to rename some of services)\n";

std::string terminated(const char* name) {
  return kFatal + "zanth::process::TerminationSignal(terminated by " + name + ")\n";
}

Records authDomains() {
  return auth_testing::sqlRows(kSpool + "/passwd.db", "SELECT name FROM domains ORDER BY name");
}

void installPlugin(const std::string& module) {
  ASSERT_EQ(0, shell("install -m 0644 " + buildPath("test_plugins/" + module) + " " + kPluginDir)
                   .exitCode());
}

// Every map holds `records(map)`, only databases lie beside them, the mail
// directory is under `dir` alone and the auth database knows `authDomain`.
void expectPlaces(Records (*records)(const std::string&), const std::string& dir,
                  const std::string& authDomain) {
  for (const char* map : kMaps) EXPECT_EQ(records(map), dumpMap(map)) << map;
  for (fs::directory_iterator it(kSpool), end; it != end; ++it)
    if (it->path().filename() != "passwd.db") {
      EXPECT_EQ(".db", it->path().extension()) << "left beside the maps: " << it->path();
    }
  const std::string other = dir == "a.example" ? "b.example" : "a.example";
  EXPECT_TRUE(pathExists(kMailNames + dir + "/info/Maildir/new/1.eml")) << dir;
  EXPECT_FALSE(pathExists(kMailNames + other)) << other;
  EXPECT_EQ((Records{authDomain, "c.example"}), authDomains());
}

// No lock file is held by anyone once the tool is gone.
void expectNoLockHeld() {
  for (fs::directory_iterator it("/var/lock/files"), end; it != end; ++it) {
    const int fd = ::open(it->path().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, ::flock(fd, LOCK_EX | LOCK_NB)) << "still locked: " << it->path();
    ::close(fd);
  }
}

// The tool started in the background, its output going to files or, with
// readerGone, its standard output into a pipe nobody reads any more. It
// gets SIGPIPE's default disposition, whatever the test process has.
class BackgroundTool {
 public:
  explicit BackgroundTool(const std::vector<std::string>& args, const std::string& tag = "tool",
                          bool readerGone = false) {
    out_ = "/run/" + tag + ".out";
    err_ = "/run/" + tag + ".err";
    writeFile(out_, "");
    pid_ = ::fork();
    if (pid_ == 0) {
      int out = ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      int ends[2];
      if (readerGone && ::pipe(ends) == 0) {
        ::close(ends[0]);
        out = ends[1];
      }
      const int err = ::open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(out, 1);
      ::dup2(err, 2);
      ::signal(SIGPIPE, SIG_DFL);
      std::vector<std::string> argv{toolPath()};
      argv.insert(argv.end(), args.begin(), args.end());
      std::vector<char*> raw;
      for (std::string& a : argv) raw.push_back(&a[0]);
      raw.push_back(nullptr);
      ::execv(raw[0], raw.data());
      ::_exit(127);
    }
  }
  pid_t pid() const { return pid_; }
  RunResult wait() {
    RunResult r;
    while (::waitpid(pid_, &r.status, 0) < 0 && errno == EINTR) {
    }
    r.out = readFile(out_);
    r.err = readFile(err_);
    return r;
  }

 private:
  pid_t pid_;
  std::string out_, err_;
};

// A stand-in program's part of the handshake: tell the test it is here,
// then wait until the test lets it go on.
const std::string kWaitOnFifo = "echo waiting > /run/ready; cat /run/go > /dev/null";

// Renames a.example to b.example and sends `signal` to the tool while a
// stand-in program waits in kWaitOnFifo.
RunResult renameSignalledDuringStandIn(int signal) {
  EXPECT_EQ(0, shell("rm -f /run/ready /run/go && mkfifo /run/ready /run/go").exitCode());
  BackgroundTool tool({"a.example", "b.example"});
  readFile(kReady);
  EXPECT_EQ(0, ::kill(tool.pid(), signal));
  writeFile(kGo, "go\n");
  return tool.wait();
}

class RenameFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    makeSampleMailLayer();
    writeFile(kRefresh, "#!/bin/sh\nexit 0\n", 0755);
  }
};

// A postmap call counter for stand-in scripts: $n is this call's number.
const std::string kCountCalls =
    "n=$(($(cat /run/calls 2>/dev/null || echo 0) + 1)); echo $n > /run/calls\n";

TEST_F(RenameFaults, TextSourceNeverRebuildsAMapFromLessThanItsRecords) {
  // Full disk: the virtual map's text does not fit, the small ones do.
  std::string text;
  for (const std::string& line : sampleBefore(kVirtualMap)) text += line + "\n";
  for (int i = 0; i < 20000; ++i)
    text += "user" + std::to_string(i) + "@a.example user" + std::to_string(i) + "@a.example\n";
  ASSERT_EQ(0, shell("mkdir -p /run/spool && cp -a " + kSpool + "/. /run/spool && mount -t tmpfs "
                     "-o size=4m tmpfs " + kSpool + " && cp -a /run/spool/. " + kSpool).exitCode());
  struct Unmount {
    ~Unmount() { shell("umount " + kSpool); }
  } unmount;
  writeFile(kSpool + "/virtual", text);
  ASSERT_EQ(0, shell("postmap " + std::string(kVirtualMap) + " && rm " + kSpool + "/virtual && "
                     "free=$(df -k --output=avail " + kSpool + " | tail -1) && "
                     "fallocate -l $(((free - 192) * 1024)) " + kSpool + "/filler").exitCode());
  const Records virtualBefore = dumpMap(kVirtualMap);
  ASSERT_EQ(20000 + sampleBefore(kVirtualMap).size(), virtualBefore.size());

  RunResult r = runTool({"a.example", "b.example"});
  const std::string full = kFatal + "zanth::mail::postfix::PostfixConfigurationError(cannot write "
                           "the text source " + kSpool + "/virtual: No space left on device)\n";
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(full, r.err);
  EXPECT_EQ(full, r.out);
  EXPECT_EQ(virtualBefore, dumpMap(kVirtualMap));
  EXPECT_EQ(sampleBefore(kVirtualDomainsMap), dumpMap(kVirtualDomainsMap));  // undone
  EXPECT_FALSE(pathExists(kSpool + "/virtual"));
  EXPECT_FALSE(pathExists(kSpool + "/virtual_domains"));
  EXPECT_TRUE(pathExists(kMailNames + "a.example/info"));

  // Planted links: a symbolic link and a second hard link at a text
  // source's path; root must not write through either.
  ASSERT_EQ(0, shell("rm -f " + kSpool + "/filler").exitCode());
  const std::string target = kSpool + "/precious";
  writeFile(target, "precious\n");
  const std::string plants[] = {"ln -s " + target + " " + kSpool + "/vmailbox",
                                "ln " + target + " " + kSpool + "/vmailbox"};
  const std::string causes[] = {"Too many levels of symbolic links",
                                "not a regular file with one link"};
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(plants[i]);
    ASSERT_EQ(0, shell(plants[i]).exitCode());
    r = runTool({"a.example", "b.example"});
    const std::string refused = kFatal + "zanth::mail::postfix::PostfixConfigurationError(cannot "
                                "create the text source " + kSpool + "/vmailbox: " + causes[i] + ")\n";
    EXPECT_EQ(1, r.exitCode());
    EXPECT_EQ(refused, r.err);
    EXPECT_EQ("precious\n", readFile(target));
    EXPECT_EQ(sampleBefore(kVirtualDomainsMap), dumpMap(kVirtualDomainsMap));
    EXPECT_EQ(virtualBefore, dumpMap(kVirtualMap));
    EXPECT_EQ(sampleBefore(kVmailboxMap), dumpMap(kVmailboxMap));
  }
}

TEST_F(RenameFaults, ClosedStandardStreamsNeitherHangNorCatchDiagnostics) {
  installPlugin("failing.so");
  const std::string tool = "timeout -s KILL 20 " + toolPath() + " a.example b.example";
  // Standard input closed: the first lock must still be released, or the
  // undo after the late failure waits on it for ever.
  RunResult r = shell("exec 0<&-; " + tool);
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("plugin 'failing.so' failed with status '1'\n" + kServicesFailed, r.err);
  expectPlaces(sampleAfter, "a.example", "b.example");
  expectNoLockHeld();

  // Standard output and error closed: nothing may land in a file.
  makeSampleMailLayer();
  r = shell("exec 1>&- 2>&-; " + tool + "; echo $? > /run/status");
  EXPECT_EQ("1\n", readFile("/run/status"));
  EXPECT_EQ("", shell("grep -rl 'Fatal error' /var /run/lock").out);
  expectPlaces(sampleAfter, "a.example", "b.example");
}

TEST_F(RenameFaults, ChildrenSeeNoDescriptorOrSignalSettingOfTheTool) {
  ASSERT_EQ(0, handler_add("virus", "recipient-domain", "a.example", "/bin/true", "ctx", "smtp",
                           "20", kHandlerSwitchOn));
  // Each postmap and refresh program lists its open descriptors, and a
  // program it starts its blocked and ignored signals.
  const std::string record =
      "ls -l /proc/$$/fd >> /run/fds; grep -E '^Sig(Blk|Ign)' /proc/self/status >> /run/signals\n";
  PostmapStandIn postmap(record + "exec \"$REAL\" \"$@\"");
  writeFile(kRefresh, "#!/bin/sh\n" + record, 0755);
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  const std::string fds = readFile("/run/fds");
  EXPECT_NE(std::string::npos, fds.find("handlers-tmpfs")) << fds;
  for (const char* leak : {"lock/files", "zanth/", "passwd.db", "utilities.sem"})
    EXPECT_EQ(std::string::npos, fds.find(leak)) << leak << " in\n" << fds;
  std::string expected;
  for (int i = 0; i < 8; ++i) expected += "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n";
  EXPECT_EQ(expected, readFile("/run/signals"));  // six postmap runs, two refreshes
}

TEST_F(RenameFaults, TerminationSignalsWaitForTheStepThenFailIt) {
  {
    // SIGTERM while the virtual map is being dumped: that map is finished,
    // then both rewritten maps are put back.
    PostmapStandIn postmap(kCountCalls + "[ $n = 3 ] && { " + kWaitOnFifo + "; }\nexec \"$REAL\" \"$@\"");
    const RunResult r = renameSignalledDuringStandIn(SIGTERM);
    EXPECT_EQ(1, r.exitCode());
    EXPECT_EQ(terminated("SIGTERM"), r.err);
    EXPECT_EQ(terminated("SIGTERM"), r.out);
    expectPlaces(sampleBefore, "a.example", "a.example");
  }

  // SIGHUP while the handler store is first refreshed, in the last step: it
  // fails as a late failure does: the Postfix step is run in reverse.
  ASSERT_EQ(0, handler_add("virus", "recipient-domain", "a.example", "/bin/true", "ctx", "smtp",
                           "20", kHandlerSwitchOn));
  writeFile(kRefresh, "#!/bin/sh\n[ -e /run/refreshed ] && exit 0\ntouch /run/refreshed\n" +
                          kWaitOnFifo + "\n", 0755);
  const RunResult r = renameSignalledDuringStandIn(SIGHUP);
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(terminated("SIGHUP"), r.out);
  expectPlaces(sampleAfter, "a.example", "b.example");
}

TEST_F(RenameFaults, SignalEndsAWaitForALockHeldElsewhere) {
  // Another process holds the virtual_domains map's lock for as long as it
  // likes; SIGINT must end the tool's wait, with nothing changed.
  const std::string lockFile =
      "/var/lock/files/" + shell("printf %s " + kSpool + "/virtual_domains | md5sum | cut -c1-32").out.substr(0, 32);
  const int held = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_EQ(0, ::flock(held, LOCK_EX));
  BackgroundTool tool({"a.example", "b.example"});
  // The kernel lists the tool's blocked flock as a waiter in /proc/locks.
  const std::string waiter = "-> FLOCK  ADVISORY  WRITE " + std::to_string(tool.pid()) + " ";
  while (readFile("/proc/locks").find(waiter) == std::string::npos) {
  }
  ASSERT_EQ(0, ::kill(tool.pid(), SIGINT));
  const RunResult r = tool.wait();
  ::close(held);
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(terminated("SIGINT"), r.err);
  expectPlaces(sampleBefore, "a.example", "a.example");
}

TEST_F(RenameFaults, ClosedOutputPipeIsNoSignalToDieOf) {
  installPlugin("failing.so");
  const RunResult r = BackgroundTool({"a.example", "b.example"}, "tool", true).wait();
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("plugin 'failing.so' failed with status '1'\n" + kServicesFailed, r.err);
  expectPlaces(sampleAfter, "a.example", "b.example");
}

TEST_F(RenameFaults, ThrowingPluginFailsOnlyItselfAndExitingPluginEndsItsChild) {
  installPlugin("throwing.so");
  RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("plugin '" + kPluginDir + "throwing.so' threw an exception: refused by the service\n"
            "plugin 'throwing.so' failed with status '1'\n" + kServicesFailed, r.err);
  EXPECT_EQ(kServicesFailed, r.out);
  expectPlaces(sampleAfter, "a.example", "b.example");

  ::unlink((kPluginDir + "throwing.so").c_str());
  installPlugin("exiting.so");
  r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  EXPECT_EQ("the exiting plugin ran", r.out);
  expectPlaces(sampleAfter, "b.example", "b.example");
}

TEST_F(RenameFaults, SameRenameAgainCompletesAfterACrashAnywhere) {
  // A stand-in postmap SIGKILLs the tool at its k-th call, then either runs
  // the real one (the call completes after the crash) or does not. Calls
  // 1-6 (dump and rebuild of each map) are the forward map step; with a
  // refusing plugin, 7-12 are the undo, 13-18 the map guards' rewrites
  // inside it.
  struct Crash {
    int call;
    bool callCompletes;
  };
  std::vector<Crash> crashes;
  for (int k = 1; k <= 6; ++k) crashes.push_back({k, true});
  for (int k : {2, 4, 6}) crashes.push_back({k, false});
  for (int k : {8, 11, 14, 17}) crashes.push_back({k, true});
  for (const Crash& crash : crashes) {
    SCOPED_TRACE("killed at postmap call " + std::to_string(crash.call) +
                 (crash.callCompletes ? ", which completes" : ", which never runs"));
    makeSampleMailLayer();
    ::unlink("/run/calls");
    if (crash.call > 6) installPlugin("failing.so");
    {
      PostmapStandIn postmap(kCountCalls + "[ $n = " + std::to_string(crash.call) +
                             " ] && { kill -KILL $PPID; " + (crash.callCompletes ? ": " : "exit 1") +
                             "; }\nexec \"$REAL\" \"$@\"");
      const RunResult killed = runTool({"a.example", "b.example"});
      ASSERT_TRUE(WIFSIGNALED(killed.status));
    }
    ::unlink((kPluginDir + "failing.so").c_str());
    const RunResult again = runTool({"a.example", "b.example"});
    EXPECT_EQ(0, again.exitCode()) << again.err;
    EXPECT_EQ("", again.err);
    expectPlaces(sampleAfter, "b.example", "b.example");
    expectNoLockHeld();
  }
}

TEST_F(RenameFaults, RecoveryAfterALateFailureOrALateCrashIsTheSameRenameAgain) {
  // Late failure: maps under the new name, directory under the old; then
  // the cause fixed, then the rerun.
  installPlugin("failing.so");
  installPlugin("recording.so");
  RunResult r = runTool({"a.example", "b.example"});
  ASSERT_EQ(1, r.exitCode());
  ::unlink((kPluginDir + "failing.so").c_str());
  r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  expectPlaces(sampleAfter, "b.example", "b.example");
  EXPECT_NE(std::string::npos, readFile(MXKEEP_PLUGIN_RECORD).find("a.example b.example"));

  // Crash in the last step, after the mail directory was renamed.
  makeSampleMailLayer();
  ASSERT_EQ(0, handler_add("virus", "recipient-domain", "a.example", "/bin/true", "ctx", "smtp",
                           "20", kHandlerSwitchOn));
  writeFile(kRefresh, "#!/bin/sh\nkill -KILL $PPID\n", 0755);
  r = runTool({"a.example", "b.example"});
  ASSERT_TRUE(WIFSIGNALED(r.status));
  writeFile(kRefresh, "#!/bin/sh\nexit 0\n", 0755);
  r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  EXPECT_EQ("", r.err);
  expectPlaces(sampleAfter, "b.example", "b.example");
}

TEST_F(RenameFaults, ConcurrentRenamesOfTwoDomainsBothComplete) {
  // Each round renames a.example and c.example at the same moment, the
  // next one back; nothing of either may be lost from any map.
  const Records original[] = {dumpMap(kVirtualDomainsMap), dumpMap(kVirtualMap),
                              dumpMap(kVmailboxMap)};
  const std::string names[][2] = {{"a.example", "b.example"}, {"c.example", "d.example"}};
  for (int round = 0; round < 6; ++round) {
    const int from = round % 2, to = 1 - from;
    BackgroundTool first({names[0][from], names[0][to]}, "first");
    BackgroundTool second({names[1][from], names[1][to]}, "second");
    const RunResult r1 = first.wait(), r2 = second.wait();
    ASSERT_EQ(0, r1.exitCode()) << "round " << round << ": " << r1.err;
    ASSERT_EQ(0, r2.exitCode()) << "round " << round << ": " << r2.err;
    EXPECT_EQ(names[0][to] + "/info/", queryMap(kVmailboxMap, "info@" + names[0][to]));
    EXPECT_EQ("VIRTUAL", queryMap(kVirtualDomainsMap, names[1][to]));
    EXPECT_TRUE(pathExists(kMailNames + names[1][to] + "/bob"));
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(original[i], dumpMap(kMaps[i])) << kMaps[i];
}

}  // namespace
