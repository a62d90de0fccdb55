// The real binary in the sandbox on a server's bad days, one fault at a
// time from its real cause: a full file system, planted links, broken
// standard streams, termination signals at moments the test picks (a
// stand-in postmap or refresh program that waits on a fifo), SIGKILL at
// every postmap call followed by the same rename again, and two renames
// at once. Each case checks the exact output and every place afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <string>
#include <vector>

#include "testing/rename_testing.h"

namespace {

using namespace testing_support;
using namespace rename_testing;

const std::string kPluginFailed = "plugin 'failing.so' failed with status '1'\n" + kServicesFailed;

std::string configError(const std::string& text) {
  return kFatal + "zanth::mail::postfix::PostfixConfigurationError(" + text + ")\n";
}

// No lock file is held by anyone once the tool is gone: flock(1) takes each.
void expectNoLockHeld() {
  EXPECT_EQ("", shell("find /var/lock/files -type f ! -exec flock -n {} true \\; -print").out);
}

// A stand-in program's part of the handshake: tell the test it is here,
// then wait until the test lets it go on.
const std::string kWaitOnFifo = "echo waiting > /run/ready; cat /run/go > /dev/null";

// Renames a.example to b.example and sends `signal` to the tool while a
// stand-in program waits in kWaitOnFifo.
RunResult renameSignalledDuringStandIn(int signal) {
  pid_t tool;
  std::future<RunResult> rename = renameInBackground(&tool);
  readFifo("/run/ready");
  EXPECT_EQ(0, ::kill(tool, signal));
  writeFifo("/run/go", "go\n");
  return rename.get();
}

class RenameFaults : public SampleLayout {};

// A postmap call counter for stand-in scripts: $n is this call's number.
const std::string kCountCalls =
    "n=$(($(cat /run/calls 2>/dev/null || echo 0) + 1)); echo $n > /run/calls\n";

TEST_F(RenameFaults, TextSourceNeverRebuildsAMapFromLessThanItsRecords) {
  // Full disk: the virtual map's text does not fit, the small ones do.
  ASSERT_EQ(0, shell("s=" + kSpool +
                     "; mkdir -p /run/spool && cp -a $s/. /run/spool && "
                     "mount -t tmpfs -o size=4m tmpfs $s && cp -a /run/spool/. $s")
                   .exitCode());
  struct Unmount {
    ~Unmount() { shell("umount " + kSpool); }
  } unmount;
  ASSERT_EQ(0, shell("s=" + kSpool +
                     "; postmap -s hash:$s/virtual > /run/virtual && "
                     "seq 0 19999 | sed 's/.*/user&@a.example user&@a.example/' >> /run/virtual && "
                     "cp /run/virtual $s/virtual && postmap hash:$s/virtual && rm $s/virtual && "
                     "free=$(df -k --output=avail $s | tail -1) && "
                     "fallocate -l $(((free - 192) * 1024)) $s/filler")
                   .exitCode());
  const Records virtualBefore = dumpMap(kVirtualMap);
  ASSERT_EQ(20000 + sampleBefore(kVirtualMap).size(), virtualBefore.size());

  RunResult r = runTool({"a.example", "b.example"});
  const std::string full =
      configError("cannot write the text source " + kSpool + "/virtual: No space left on device");
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
    const std::string refused =
        configError("cannot create the text source " + kSpool + "/vmailbox: " + causes[i]);
    EXPECT_EQ(1, r.exitCode());
    EXPECT_EQ(refused, r.err);
    EXPECT_EQ("precious\n", readFile(target));
  }
}

TEST_F(RenameFaults, BrokenStandardStreamsNeitherHangNorCatchDiagnostics) {
  // Panels and daemons start children with standard streams closed or tied
  // to a pipe nobody reads. A rename that fails late (a refusing plugin)
  // must still end with status 1, release every lock and write no
  // diagnostic into a file.
  const struct {
    const char* streams;
    bool errorShown;
  } cases[] = {
      // Standard input closed: the first lock file would get descriptor 0,
      // never be released, and the undo would wait on it for ever.
      {"exec 0<&-", true},
      {"exec 1>&- 2>&-", false},
      // Standard output a fifo whose reader is gone: SIGPIPE is no signal
      // to die of in the middle of a step.
      {"mkfifo /run/p && exec 3<>/run/p >/run/p 3<&-", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.streams);
    fresh();
    installPlugin("test_plugins/failing.so");
    const RunResult r = shell(std::string(c.streams) + "; timeout -s KILL 20 " + toolPath() +
                              " a.example b.example; echo $? > /run/status");
    EXPECT_EQ("1\n", readFile("/run/status"));
    EXPECT_EQ(c.errorShown ? kPluginFailed : "", r.err);
    EXPECT_EQ("", shell("grep -rl 'Fatal error' /var /run/lock").out);
    expectPlaces(sampleAfter, "a.example", kUsersRenamed);
    expectNoLockHeld();
  }
}

TEST_F(RenameFaults, ChildrenSeeNoDescriptorOrSignalSettingOfTheTool) {
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
  // Seven postmap runs (one lookup of both names, a dump and a rebuild of
  // each map) and two refreshes for each of the two moved handlers.
  for (int i = 0; i < 11; ++i) expected += "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n";
  EXPECT_EQ(expected, readFile("/run/signals"));
}

TEST_F(RenameFaults, TerminationSignalsWaitForTheStepThenFailIt) {
  {
    // SIGTERM while the virtual map is being dumped (call 4, after the
    // clash lookup and the domains map): that map is finished, then both
    // rewritten maps are put back.
    PostmapStandIn postmap(kCountCalls + "[ $n = 4 ] && { " + kWaitOnFifo +
                           "; }\nexec \"$REAL\" \"$@\"");
    const RunResult r = renameSignalledDuringStandIn(SIGTERM);
    EXPECT_EQ(1, r.exitCode());
    EXPECT_EQ(terminated("SIGTERM"), r.err);
    EXPECT_EQ(terminated("SIGTERM"), r.out);
    expectPlaces(sampleBefore, "a.example", kUsersKept);
  }

  // SIGHUP while the handler store is first refreshed, in the last step: it
  // fails as a late failure does: the Postfix step is run in reverse.
  writeFile(kRefresh,
            "#!/bin/sh\n[ -e /run/refreshed ] && exit 0\ntouch /run/refreshed\n" + kWaitOnFifo +
                "\n",
            0755);
  const RunResult r = renameSignalledDuringStandIn(SIGHUP);
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(terminated("SIGHUP"), r.out);
  expectPlaces(sampleAfter, "a.example", kUsersRenamed);
}

TEST_F(RenameFaults, SignalEndsAWaitForALockHeldElsewhere) {
  // Another process holds the virtual_domains map's lock for as long as it
  // likes; SIGINT must end the tool's wait, with nothing changed.
  const std::string lockFile =
      "/var/lock/files/" +
      shell("printf %s " + kSpool + "/virtual_domains | md5sum | cut -c1-32").out.substr(0, 32);
  const int held = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_EQ(0, ::flock(held, LOCK_EX));
  pid_t tool;
  std::future<RunResult> rename = renameInBackground(&tool);
  // The kernel lists the tool's blocked flock as a waiter in /proc/locks.
  const std::string waiter = "-> FLOCK  ADVISORY  WRITE " + std::to_string(tool) + " ";
  waitUntil("the tool waits for the lock",
            [&] { return readFile("/proc/locks").find(waiter) != std::string::npos; });
  EXPECT_EQ(0, ::kill(tool, SIGINT));
  const RunResult r = rename.get();
  ::close(held);
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(terminated("SIGINT"), r.err);
  expectPlaces(sampleBefore, "a.example", kUsersKept);
}

TEST_F(RenameFaults, ThrowingPluginFailsOnlyItself) {
  installPlugin("test_plugins/throwing.so");
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("plugin '" + kPluginDir +
                "throwing.so' threw an exception: refused by the service\n"
                "plugin 'throwing.so' failed with status '1'\n" +
                kServicesFailed,
            r.err);
  EXPECT_EQ(kServicesFailed, r.out);
  expectPlaces(sampleAfter, "a.example", kUsersRenamed);
}

TEST_F(RenameFaults, SameRenameAgainCompletesAfterACrashAnywhere) {
  // A stand-in postmap SIGKILLs the tool at its k-th call, then runs the
  // real one, so a dump leaves its text source behind. Call 1 is the clash
  // lookup, 2-7 (dump and rebuild of each map) the forward map step; with a
  // refusing plugin, 8-13 are the undo, 14-19 the map guards' rewrites
  // inside it. Call 0 is the refresh program of the handler step killing
  // the tool, after the mail directory was renamed.
  for (int call : {0, 1, 2, 3, 4, 5, 6, 7, 9, 12, 15, 18}) {
    SCOPED_TRACE("killed at call " + std::to_string(call));
    fresh();
    if (call > 7) installPlugin("test_plugins/failing.so");
    if (call == 0) writeFile(kRefresh, "#!/bin/sh\nkill -KILL $PPID\n", 0755);
    {
      const std::string kill = "[ $n = " + std::to_string(call) + " ] && kill -KILL $PPID\n";
      const PostmapStandIn postmap(kCountCalls + kill + "exec \"$REAL\" \"$@\"");
      const RunResult killed = runTool({"a.example", "b.example"});
      ASSERT_TRUE(WIFSIGNALED(killed.status));
    }
    ::unlink((kPluginDir + "failing.so").c_str());
    writeFile(kRefresh, "#!/bin/sh\nexit 0\n", 0755);
    const RunResult again = runTool({"a.example", "b.example"});
    EXPECT_EQ(0, again.exitCode()) << again.err;
    EXPECT_EQ("", again.err);
    expectPlaces(sampleAfter, "b.example", kUsersRenamed);
    expectNoLockHeld();
  }
}

TEST_F(RenameFaults, ClashLookupSeesOneVersionOfTheDomainsMap) {
  // The postmap of a killed rename finishes its rebuild of virtual_domains
  // (a.example now b.example) just as the rerun has asked its first name:
  // asked one by one, the two names would both be found and the rerun
  // refused as a merge of two domains.
  const std::string vd = kSpool + "/virtual_domains";
  PostmapStandIn postmap(kCountCalls +
                         "\"$REAL\" \"$@\"; status=$?\n[ $n = 1 ] && { \"$REAL\" -s hash:" + vd +
                         " | sed -E 's/^a[.]example([[:space:]])/b.example\\1/' > /run/vd && " +
                         "\"$REAL\" hash:/run/vd && mv /run/vd.db " + vd + ".db; }\nexit $status");
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  expectPlaces(sampleAfter, "b.example", kUsersRenamed);
}

TEST_F(RenameFaults, ConcurrentRenamesOfTwoDomainsBothComplete) {
  // Each round renames a.example and c.example at the same moment, the
  // next one back; nothing of either may be lost from any map.
  const std::string names[][2] = {{"a.example", "b.example"}, {"c.example", "d.example"}};
  for (int round = 0; round < 6; ++round) {
    const int from = round % 2, to = 1 - from;
    std::future<RunResult> first =
        std::async(std::launch::async, runTool,
                   std::vector<std::string>{names[0][from], names[0][to]});
    const RunResult r2 = runTool({names[1][from], names[1][to]}), r1 = first.get();
    ASSERT_EQ(0, r1.exitCode()) << "round " << round << ": " << r1.err;
    ASSERT_EQ(0, r2.exitCode()) << "round " << round << ": " << r2.err;
  }
  // After an even number of rounds both are back under their old names.
  expectPlaces(sampleBefore, "a.example", kUsersKept);
}

}  // namespace

namespace {

// The handler step's own file work failing from a real cause (a read-only
// part of the store): the step fails, the rename says so in its Fatal
// line, and the late-failure end state follows; the process is never
// ended in the middle of the step.
TEST_F(RenameFaults, HandlerStoreThatCannotBeWrittenFailsTheHandlerStep) {
  const struct {
    const char* readOnly;  // made read-only under /opt/orb/handlers
    const char* cause;     // the first diagnostic of the failure
  } cases[] = {
      // Where the moved handlers are switched on: no directory can be made.
      {"smtp", "Cannot create directory /opt/orb/handlers/smtp/recipient"},
      // The description of a handler that moved: it cannot be removed.
      {"info/20-virus-*", "Unable to unlink directory entry "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.readOnly);
    fresh();
    const std::string dir = "$(ls -d /opt/orb/handlers/" + std::string(c.readOnly) + ")";
    ASSERT_EQ(0, shell("mount --bind " + dir + " " + dir + " && mount -o remount,bind,ro " + dir)
                     .exitCode());
    const RunResult r = runTool({"a.example", "b.example"});
    shell("umount " + dir);
    EXPECT_EQ(1, r.exitCode()) << r.err;
    EXPECT_NE(std::string::npos, r.err.find(c.cause)) << r.err;
    EXPECT_TRUE(endsWith(r.err, kHandlersFailed)) << r.err;
    expectPlaces(sampleAfter, "a.example", kUsersRenamed);
  }
}

}  // namespace
