// Quota files checked on real mailboxes in the sandbox: the exact lines,
// owner and mode, "@attachments", the backdating when mail arrives during
// the count (a second process delivering) and the temporary-name defences.
#include "mail/postfix/maildirsize.h"
#include "mail/postfix/maildirsize_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

#include "common/working_dir.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

namespace pf = zanth::mail::postfix;
using namespace testing_support;

const std::string kBox = "/var/qmail/mailnames/xn--bcher-kva.example/info";
const std::string kMaildir = kBox + "/Maildir";
const std::string kQuotaFile = kMaildir + "/maildirsize";
const std::string kEmptyUsage = "           0           0\n";

std::string cwdNow() {
  char buf[4096];
  return ::getcwd(buf, sizeof buf) != nullptr ? buf : "";
}

class Maildirsize : public ::testing::Test {
 protected:
  void SetUp() override {
    pf::createDomainDirectory(pop_, "xn--bcher-kva.example");
    pf::createMailboxDirectory(pop_, "xn--bcher-kva.example", "info");
    ASSERT_EQ(0, sh("mkdir -p .Sent/new .Sent/cur .Trash/new .Trash/cur"));
  }
  void TearDown() override { ::umask(callerUmask_); }
  int sh(const std::string& command) {
    return shell("cd " + kMaildir + " && " + command).exitCode();
  }
  std::string tmpListing() { return shell("ls -A " + kMaildir + "/tmp").out; }

  const mode_t callerUmask_ = ::umask(022);
  const pf::PopUser& pop_ = pf::getPopUser();
  const std::string startDir_ = cwdNow();
};

TEST_F(Maildirsize, WritesExactLinesAsPopuserWithMode0644) {
  ASSERT_EQ(0, sh("rmdir ../@attachments"));
  const struct {
    long long quota;
    const char* messages;
    std::string content;
  } cases[] = {
      {-1, ":", "0S,0C\n" + kEmptyUsage},
      {0, ":", "1S,0C\n" + kEmptyUsage},
      {1048576, ":", "1048576S,0C\n" + kEmptyUsage},
      {5000, ": > new/1.M1.h,S=1000 && : > cur/2.M1.h,S=1000:2,S && : > .Sent/cur/3,S=1000:2,S",
       "5000S,0C\n        3000           3\n"},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(0,
              sh("rm -f maildirsize new/* cur/* .*/new/* .*/cur/* && " + std::string(c.messages)));
    EXPECT_EQ(1, mailbox_set_quota("bücher.example", "info", c.quota)) << c.quota;
    EXPECT_EQ(c.content, readFile(kQuotaFile)) << c.quota;
    EXPECT_EQ("644 popuser:popuser\n", shell("stat -c '%a %U:%G' " + kQuotaFile).out);
    EXPECT_EQ(startDir_, cwdNow());
    EXPECT_EQ("", tmpListing());
  }
}

TEST_F(Maildirsize, AttachmentsLargerThanTheQuotaWarnAndLeaveOneByte) {
  ASSERT_EQ(0, sh("mkdir ../@attachments/x && head -c 6000 /dev/zero > ../@attachments/x/a"));
  const std::string warning =
      "WARNING: @attachments directory is big enough to disable delivery!\n";
  RunResult lower = runInChild([] { return mailbox_set_quota("bücher.example", "info", 5000); });
  EXPECT_EQ(1, lower.exitCode());
  EXPECT_EQ(warning, lower.err);
  EXPECT_EQ("1S,0C\n" + kEmptyUsage, readFile(kQuotaFile));

  // The domain manager's own path warns on standard error alone.
  ASSERT_EQ(0, sh("rm maildirsize"));
  RunResult upper = runInChild([&] {
    pf::createMaildirsize(pop_, "xn--bcher-kva.example", "info", 5000);
    return cwdNow() == startDir_ ? 0 : 1;
  });
  EXPECT_EQ(0, upper.exitCode());
  EXPECT_EQ(warning, upper.err);
  EXPECT_EQ("", upper.out);
  EXPECT_EQ("1S,0C\n" + kEmptyUsage, readFile(kQuotaFile));
}

// A second process that delivers one message into `target` while the quota
// writer is blocked opening ".Sent/cur" (a fanotify permission event): the
// Maildir's own "new" and "cur", counted before its folders, have been read
// by then, so the count misses the message.
pid_t startDeliverer(const std::string& target) {
  int ready[2];
  if (::pipe(ready) != 0) return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int fan = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
    if (fan < 0 ||
        ::fanotify_mark(fan, FAN_MARK_ADD, FAN_OPEN_PERM | FAN_ONDIR, AT_FDCWD,
                        (kMaildir + "/.Sent/cur").c_str()) != 0 ||
        ::write(ready[1], "r", 1) != 1)
      ::_exit(1);
    struct fanotify_event_metadata event;
    if (::read(fan, &event, sizeof event) < static_cast<ssize_t>(sizeof event)) ::_exit(1);
    writeFile(target + "/9.M9.h,S=10", "");
    const struct fanotify_response allow = {event.fd, FAN_ALLOW};
    ::_exit(::write(fan, &allow, sizeof allow) == sizeof allow ? 0 : 1);
  }
  char answer = 0;
  ::close(ready[1]);
  const bool ok = ::read(ready[0], &answer, 1) == 1;
  ::close(ready[0]);
  return ok ? pid : -1;
}

TEST_F(Maildirsize, MailArrivingDuringTheCountBackdatesTheFileUnlessItIsTrash) {
  for (const char* target : {"new", ".Trash/new"}) {
    ASSERT_EQ(0, sh("rm -f maildirsize new/* cur/* .Sent/*/* .Trash/*/* && : > cur/1,S=1000:2,S && "
                    "touch -d @1000000000 new cur .Sent/new .Trash/new && "
                    "touch -d @1000000500 .Sent/cur"));
    const time_t before = std::time(nullptr);
    const pid_t deliverer = startDeliverer(kMaildir + "/" + target);
    ASSERT_GT(deliverer, 0) << "fanotify permission events are not available";
    {
      zanth::WorkingDirectoryGuard cwd;
      EXPECT_EQ(1, maildirsize_create(kMaildir.c_str(), pop_.uid, pop_.gid, 5000, 0));
    }
    int status = -1;
    ::waitpid(deliverer, &status, 0);
    EXPECT_EQ(0, status) << "not delivered";
    EXPECT_EQ("5000S,0C\n        1000           1\n", readFile(kQuotaFile)) << target;
    struct stat st;
    ASSERT_EQ(0, ::stat(kQuotaFile.c_str(), &st));
    if (std::string(target) == "new") {
      EXPECT_EQ(1000000500 - 960, st.st_mtime);  // the newest time the count saw, less 960 s
    } else {
      EXPECT_GE(st.st_mtime, before);
    }
  }
}

TEST_F(Maildirsize, TooLongHostNameFailsAtOnce) {
  RunResult r = runInChild([] {
    char name[64];  // room for a short host name, not for one of 64 bytes
    const std::string shortHost = "mx", longHost(64, 'h');
    int fd = -1;
    if (::unshare(CLONE_NEWUTS) != 0 || ::sethostname(shortHost.data(), shortHost.size()) != 0 ||
        ::chdir(kMaildir.c_str()) != 0 || (fd = maildirsize_open_tmp(name, sizeof name)) < 0 ||
        ::close(fd) != 0 || ::unlink(name) != 0 ||
        ::sethostname(longHost.data(), longHost.size()) != 0)
      return 2;
    return maildirsize_open_tmp(name, sizeof name) == -1 && errno == ENAMETOOLONG ? 0 : 1;
  });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("host name is too long to be used in filename\nSystem error 36: File name too long\n",
            r.err);
  EXPECT_EQ("", tmpListing());
}

// Takes about ten seconds: five refused attempts, two seconds apart.
TEST_F(Maildirsize, LinksPlantedAtTheTemporaryNameAreRefused) {
  TempDir elsewhere;
  RunResult r = runInChild([&] {
    char host[256] = {};
    if (::chdir(kMaildir.c_str()) != 0 || ::gethostname(host, sizeof host - 1) != 0) return 2;
    for (time_t t = std::time(nullptr), end = t + 16; t < end; ++t) {
      const std::string name = "tmp/" + std::to_string(t) + "." + std::to_string(::getpid()) + "." +
                               host + "-maildirsize";
      if (::symlink((elsewhere / std::to_string(t)).c_str(), name.c_str()) != 0) return 3;
    }
    return maildirsize_create(".", 0, 0, 1, 0) == 0 && errno == EAGAIN ? 0 : 1;
  });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ(
      "Maximal allowed number of attempts to create a maildirsize file exceeded\n"
      "System error 11: Resource temporarily unavailable\n",
      r.err);
  // Each attempt found a link at its name and removed the link: five links
  // gone, nothing else there.
  EXPECT_EQ("11\n", shell("find " + kMaildir + "/tmp -type l | wc -l").out);
  EXPECT_EQ("", shell("find " + kMaildir + "/tmp -mindepth 1 ! -type l").out);
  EXPECT_FALSE(pathExists(kQuotaFile));
  // Nothing was made where the links pointed.
  EXPECT_EQ("", shell("ls -A " + elsewhere.path()).out);
}

}  // namespace
