// Quota files checked on real mailboxes in the sandbox: the exact lines,
// owner and mode, "@attachments", the backdating when mail arrives during
// the count (a real second process delivering), the temporary-name
// defences, and what a failure leaves behind.
#include "mail/postfix/maildirsize.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem/exception.hpp>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "common/working_dir.h"
#include "testing/child.h"
#include "testing/test_support.h"

namespace {

namespace pf = zanth::mail::postfix;
using namespace testing_support;

const std::string kDomainDir = "/var/qmail/mailnames/xn--bcher-kva.example";
const std::string kBox = kDomainDir + "/info";
const std::string kMaildir = kBox + "/Maildir";
const std::string kQuotaFile = kMaildir + "/maildirsize";

std::string cwdNow() {
  char buf[4096];
  return ::getcwd(buf, sizeof buf) != nullptr ? buf : "";
}

class Maildirsize : public ::testing::Test {
 protected:
  void SetUp() override {
    pf::createDomainDirectory(pop_, "xn--bcher-kva.example");
    pf::createMailboxDirectory(pop_, "xn--bcher-kva.example", "info");
    ASSERT_EQ(0, sh("mkdir .Sent .Sent/new .Sent/cur .Trash .Trash/new .Trash/cur"));
  }
  void TearDown() override { ::umask(callerUmask_); }
  int sh(const std::string& command) { return shell("cd " + kMaildir + " && " + command).exitCode(); }
  std::string tmpListing() { return shell("ls -A " + kMaildir + "/tmp").out; }

  const mode_t callerUmask_ = ::umask(022);
  const pf::PopUser& pop_ = pf::getPopUser();
  const std::string startDir_ = cwdNow();
};

TEST_F(Maildirsize, WritesExactLinesAsPopuserWithMode0644) {
  ASSERT_EQ(0, sh("rmdir ../@attachments"));
  struct Case {
    long long quota;
    const char* messages;
    const char* content;
  } const cases[] = {
      {-1, ":", "0S,0C\n           0           0\n"},
      {0, ":", "1S,0C\n           0           0\n"},
      {1048576, ":", "1048576S,0C\n           0           0\n"},
      {5000, ": > new/1.M1.h,S=1000 && : > cur/2.M1.h,S=1000:2,S && : > .Sent/cur/3,S=1000:2,S",
       "5000S,0C\n        3000           3\n"},
      {5000, "head -c 1234 /dev/zero > cur/1.M1.h:2,S && : > .Trash/cur/2,S=99999:2,T",
       "5000S,0C\n        1234           1\n"},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(0, sh("rm -f maildirsize new/* cur/* .*/new/* .*/cur/* && " + std::string(c.messages)));
    EXPECT_EQ(1, mailbox_set_quota("bücher.example", "info", c.quota)) << c.quota;
    EXPECT_EQ(c.content, readFile(kQuotaFile)) << c.quota;
    EXPECT_EQ("644 popuser:popuser\n", shell("stat -c '%a %U:%G' " + kQuotaFile).out);
    EXPECT_EQ(startDir_, cwdNow());
    EXPECT_EQ("", tmpListing());
  }
}

TEST_F(Maildirsize, AttachmentsAreTakenFromTheQuotaAndWarnWhenTheyExceedIt) {
  ASSERT_EQ(0, sh("mkdir ../@attachments/x && head -c 6000 /dev/zero > ../@attachments/x/a"));
  const long long attachments =
      std::stoll(shell("du -s -B1 --apparent-size " + kBox + "/@attachments").out);
  ASSERT_EQ(1, mailbox_set_quota("xn--bcher-kva.example", "info", 100000));
  EXPECT_EQ(std::to_string(100000 - attachments) + "S,0C\n           0           0\n",
            readFile(kQuotaFile));
  ASSERT_EQ(1, mailbox_set_quota("xn--bcher-kva.example", "info", -1));
  EXPECT_EQ("0S,0C\n           0           0\n", readFile(kQuotaFile));

  const std::string warning = "WARNING: @attachments directory is big enough to disable delivery!\n";
  RunResult lower = runInChild([] { return mailbox_set_quota("bücher.example", "info", 5000); });
  EXPECT_EQ(1, lower.exitCode());
  EXPECT_EQ(warning, lower.err);
  EXPECT_EQ(warning, lower.out);
  EXPECT_EQ("1S,0C\n           0           0\n", readFile(kQuotaFile));

  // The domain manager's own path warns on standard error alone.
  ASSERT_EQ(0, sh("rm maildirsize"));
  RunResult upper = runInChild([&] {
    pf::createMaildirsize(pop_, "xn--bcher-kva.example", "info", 5000);
    return cwdNow() == startDir_ ? 0 : 1;
  });
  EXPECT_EQ(0, upper.exitCode());
  EXPECT_EQ(warning, upper.err);
  EXPECT_EQ("", upper.out);
  EXPECT_EQ("1S,0C\n           0           0\n", readFile(kQuotaFile));
}

// A second process that delivers one message while the quota writer is
// blocked opening the second directory it counts (fanotify permission
// events on the counted directories): the first directory has then been
// read, so the count misses what arrives. It delivers into the first
// directory opened, or into `target` when given.
class Deliverer {
 public:
  Deliverer(const std::vector<std::string>& counted, const std::string& target) {
    int ready[2];
    if (::pipe(ready) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ready[0]);
      ::_exit(run(counted, target, ready[1]));
    }
    ::close(ready[1]);
    char answer = 0;
    ok_ = ::read(ready[0], &answer, 1) == 1 && answer == 'r';
    ::close(ready[0]);
  }
  ~Deliverer() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  bool ok() const { return ok_; }

 private:
  static int run(const std::vector<std::string>& counted, const std::string& target, int ready) {
    int fan = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
    for (const std::string& dir : counted)
      if (fan < 0 || ::fanotify_mark(fan, FAN_MARK_ADD, FAN_OPEN_PERM | FAN_ONDIR, AT_FDCWD,
                                     dir.c_str()) != 0)
        return ::write(ready, "e", 1) == 1 ? 1 : 2;
    if (::write(ready, "r", 1) != 1) return 1;
    std::string first;
    for (int events = 0;;) {
      alignas(fanotify_event_metadata) char buf[4096];
      ssize_t n = ::read(fan, buf, sizeof buf);
      if (n <= 0) return 1;
      for (auto* m = reinterpret_cast<fanotify_event_metadata*>(buf); FAN_EVENT_OK(m, n);
           m = FAN_EVENT_NEXT(m, n)) {
        if (++events == 1) {
          char path[4096];
          ssize_t len = ::readlink(("/proc/self/fd/" + std::to_string(m->fd)).c_str(), path,
                                   sizeof path - 1);
          first.assign(path, len > 0 ? len : 0);
        } else if (events == 2) {
          writeFile((target.empty() ? first : target) + "/9.M9.h,S=10", "");
        }
        struct fanotify_response allow = {m->fd, FAN_ALLOW};
        if (::write(fan, &allow, sizeof allow) != sizeof allow) return 1;
        ::close(m->fd);
      }
    }
  }

  pid_t pid_ = -1;
  bool ok_ = false;
};

TEST_F(Maildirsize, MailArrivingDuringTheCountBackdatesTheFileUnlessItIsTrash) {
  const std::vector<std::string> counted = {kMaildir + "/new", kMaildir + "/cur",
                                            kMaildir + "/.Sent/new", kMaildir + "/.Sent/cur"};
  for (const std::string& trash : {std::string(), kMaildir + "/.Trash/new"}) {
    ASSERT_EQ(0, sh("rm -f maildirsize new/* cur/* .Sent/*/* .Trash/*/* && : > cur/1,S=1000:2,S && "
                    "touch -d @1000000000 new cur .Sent/new .Trash/new .Trash/cur && "
                    "touch -d @1000000500 .Sent/cur"));
    const time_t before = std::time(nullptr);
    {
      Deliverer deliverer(counted, trash);
      ASSERT_TRUE(deliverer.ok()) << "fanotify permission events are not available";
      zanth::WorkingDirectoryGuard cwd;
      ASSERT_EQ(1, maildirsize_create(kMaildir.c_str(), pop_.uid, pop_.gid, 5000, 0));
    }
    EXPECT_EQ("5000S,0C\n        1000           1\n", readFile(kQuotaFile)) << trash;
    EXPECT_EQ("1\n", shell("find " + kMaildir + " -name 9.M9.h,S=10 | wc -l").out)
        << "the message was not delivered";
    struct stat st;
    ASSERT_EQ(0, ::stat(kQuotaFile.c_str(), &st));
    if (trash.empty()) {
      EXPECT_EQ(1000000500 - 960, st.st_mtime);
    } else {
      EXPECT_GE(st.st_mtime, before);
    }
  }
}

TEST_F(Maildirsize, FailedWriteLeavesNoTemporaryFileAndKeepsTheCause) {
  // The Maildir on a one-page file system, filled up.
  ASSERT_EQ(0, ::mount("mxkeep-full", kMaildir.c_str(), "tmpfs", 0, "size=4k"));
  ASSERT_EQ(0, sh("mkdir tmp new cur && (head -c 65536 /dev/zero > fill || true)"));
  RunResult lower = runInChild([&] {
    int rc = maildirsize_create(kMaildir.c_str(), pop_.uid, pop_.gid, 5000, 0);
    return rc == 0 && errno == ENOSPC && cwdNow() == startDir_ ? 0 : 1;
  });
  EXPECT_EQ(0, lower.exitCode());
  EXPECT_EQ("unable to write data to file\nSystem error 28: No space left on device\n", lower.err);
  EXPECT_EQ(lower.err, lower.out);
  EXPECT_EQ("", tmpListing());
  EXPECT_FALSE(pathExists(kQuotaFile));

  RunResult upper = runInChild([&] {
    try {
      pf::createMaildirsize(pop_, "xn--bcher-kva.example", "info", 5000);
    } catch (const boost::filesystem::filesystem_error& e) {
      const bool as_said = std::string(e.what()).rfind("create maildirsize", 0) == 0 &&
                           e.code().value() == ENOSPC && e.path1().string() == kBox;
      return as_said && cwdNow() == startDir_ ? 0 : 1;
    }
    return 2;
  });
  EXPECT_EQ(0, upper.exitCode()) << upper.err;
  EXPECT_EQ("", tmpListing());
  ASSERT_EQ(0, ::umount(kMaildir.c_str()));
}

TEST_F(Maildirsize, RefusedMailboxesSayWhy) {
  struct Case {
    const char* domain;
    std::string mailbox;
    const char* message;
  } const cases[] = {
      {"xn--bcher-kva.example", "nobody",
       "unable to change to mbox folder /var/qmail/mailnames/xn--bcher-kva.example/nobody: "
       "No such file or directory\nSystem error 2: No such file or directory\n"},
      {"xn--bcher-kva.example", std::string(4096, 'm'),
       "domain and/or user name too long to be stored on the filesystem\n"
       "System error 36: File name too long\n"},
      {"b\xc3\x28.example", "info", "idn_toascii(b\xc3\x28.example) failed: Iconv error\n"},
  };
  for (const Case& c : cases) {
    RunResult r = runInChild([&] {
      errno = 0;
      return mailbox_set_quota(c.domain, c.mailbox.c_str(), 1000) == 0 && cwdNow() == startDir_
                 ? 0 : 1;
    });
    EXPECT_EQ(0, r.exitCode()) << c.message;
    EXPECT_EQ(c.message, r.err);
    EXPECT_EQ(c.message, r.out);
  }
  EXPECT_FALSE(pathExists(kQuotaFile));
  try {
    pf::createMaildirsize(pop_, "xn--bcher-kva.example", "nobody", 1000);
    ADD_FAILURE() << "no error for a missing mailbox";
  } catch (const boost::filesystem::filesystem_error& e) {
    EXPECT_EQ(ENOENT, e.code().value());
    EXPECT_EQ(kDomainDir + "/nobody", e.path1().string());
    EXPECT_EQ(0, std::string(e.what()).rfind("chdir", 0)) << e.what();
  }
  EXPECT_EQ(startDir_, cwdNow());
}

TEST_F(Maildirsize, TooLongHostNameFailsAtOnce) {
  RunResult r = runInChild([] {
    if (::chdir(kMaildir.c_str()) != 0) return 2;
    char name[64];
    int fd = maildirsize_open_tmp(name, sizeof name);  // the sandbox's short name fits
    if (fd < 0 || ::close(fd) != 0 || ::unlink(name) != 0) return 3;
    const std::string host(64, 'h');
    if (::unshare(CLONE_NEWUTS) != 0 || ::sethostname(host.data(), host.size()) != 0) return 4;
    errno = 0;
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
    const time_t now = std::time(nullptr);
    for (time_t t = now; t < now + 16; ++t) {
      const std::string name = "tmp/" + std::to_string(t) + "." + std::to_string(::getpid()) +
                               "." + host + "-maildirsize";
      if (::symlink((elsewhere / std::to_string(t)).c_str(), name.c_str()) != 0) return 3;
    }
    errno = 0;
    return maildirsize_create(".", 0, 0, 1, 0) == 0 && errno == EAGAIN ? 0 : 1;
  });
  EXPECT_EQ(0, r.exitCode());
  const std::string message =
      "Maximal allowed number of attempts to create a maildirsize file exceeded\n"
      "System error 11: Resource temporarily unavailable\n";
  EXPECT_EQ(message, r.err);
  EXPECT_EQ(message, r.out);
  // Each attempt found its link, saw that the name was not the file it
  // opened, and removed the name: five links gone, nothing else there.
  EXPECT_EQ("11\n", shell("find " + kMaildir + "/tmp -type l | wc -l").out);
  EXPECT_EQ("", shell("find " + kMaildir + "/tmp -mindepth 1 ! -type l").out);
  EXPECT_FALSE(pathExists(kQuotaFile));
}

}  // namespace
