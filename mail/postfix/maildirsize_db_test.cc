// Quota operations that read the product database, against the real
// MariaDB server of testing/mariadb_server.h and real mailboxes: which
// mailboxes get the default quota, the domain's own "mbox_quota" limit,
// and the exact texts when a domain or a mailbox is missing.
#include <gtest/gtest.h>

#include <boost/filesystem/exception.hpp>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "mail/postfix/maildirsize.h"
#include "testing/child.h"
#include "testing/mariadb_server.h"
#include "testing/test_support.h"

namespace {

namespace pf = zanth::mail::postfix;
using namespace testing_support;

const std::string kDomain = "xn--bcher-kva.example";
const std::string kDomainDir = "/var/qmail/mailnames/" + kDomain;

std::string quotaLine(const std::string& mailbox) {
  const std::string path = kDomainDir + "/" + mailbox + "/Maildir/maildirsize";
  return pathExists(path) ? readFile(path).substr(0, readFile(path).find('\n')) : "<none>";
}

// Runs a domain-manager call in a child, so that the lower layer's reports
// are captured; the child prints what it threw as "text|code|path".
RunResult runThrowing(const std::function<void()>& call) {
  return runInChild([&] {
    try {
      call();
    } catch (const boost::filesystem::filesystem_error& e) {
      const std::string what = e.what();  // text, then the library's additions
      std::printf("%s|%d|%s\n", what.substr(0, what.find(':')).c_str(), e.code().value(),
                  e.path1().c_str());
      return 0;
    }
    return 1;
  });
}

class MailboxQuotaDb : public ProductDbTest {
 protected:
  void SetUp() override {
    ProductDbTest::SetUp();
    // The panel's mailbox table; only the columns the quota code reads.
    server().exec(
        "USE orb;"
        "CREATE TABLE mail (id INT UNSIGNED AUTO_INCREMENT PRIMARY KEY, dom_id INT UNSIGNED,"
        " mail_name VARCHAR(245), mbox_quota VARCHAR(32));"
        "INSERT INTO domains VALUES (12, '" + kDomain + "', 0, NULL, 40, NULL),"
        " (13, 'other.example', 0, NULL, NULL, NULL);"
        "INSERT INTO Limits VALUES (40, 'mbox_quota', '3000'), (41, 'mbox_quota', '9');"
        "INSERT INTO mail (dom_id, mail_name, mbox_quota) VALUES (12, 'info', '-1'),"
        " (12, 'sales', '2000'), (12, 'team', NULL), (13, 'info', '-1');");
    pf::createDomainDirectory(pop_, kDomain);
    for (const char* box : {"info", "sales", "team"}) {
      pf::createMailboxDirectory(pop_, kDomain, box);
      ASSERT_EQ(0, shell("rmdir " + kDomainDir + "/" + box + "/@attachments").exitCode());
    }
  }
  const pf::PopUser& pop_ = pf::getPopUser();
};

TEST_F(MailboxQuotaDb, DefaultQuotaGoesToMailboxesWithoutTheirOwn) {
  // A name that would select every mailbox if it were not escaped.
  EXPECT_EQ(1, domain_set_default_quota("nowhere' OR ''='", 7000));
  EXPECT_EQ("<none>", quotaLine("info"));

  pf::storeDefaultMailboxQuota(pop_, "bücher.example", 7000);
  EXPECT_EQ("7000S,0C", quotaLine("info"));
  EXPECT_EQ("7000S,0C", quotaLine("team"));  // a quota that is not a number is none
  EXPECT_EQ("<none>", quotaLine("sales"));
  // The server's log drops the statement's trailing blank.
  const std::vector<std::string> sent = server().adminQueries();
  EXPECT_NE(sent.end(), std::find(sent.begin(), sent.end(),
                                  "SELECT m.mail_name, m.mbox_quota FROM mail m, domains d WHERE "
                                  "d.id = m.dom_id AND d.name='xn--bcher-kva.example'"))
      << ::testing::PrintToString(sent);

  pf::removeDomainQuota(pop_, kDomain);
  EXPECT_EQ("0S,0C", quotaLine("info"));
  pf::storeDomainQuota(pop_, kDomain, 0);
  EXPECT_EQ("1S,0C", quotaLine("team"));
  pf::removeDefaultMailboxQuota(pop_, kDomain);
  EXPECT_EQ("0S,0C", quotaLine("team"));
  EXPECT_EQ("<none>", quotaLine("sales"));
}

TEST_F(MailboxQuotaDb, DefaultQuotaStopsAtAMailboxWithoutDirectory) {
  server().exec("INSERT INTO orb.mail (dom_id, mail_name, mbox_quota) VALUES (12, 'ghost', '-1')");
  RunResult r = runThrowing([&] { pf::storeDefaultMailboxQuota(pop_, kDomain, 7000); });
  const std::string missing = kDomainDir + "/ghost";
  EXPECT_EQ("unable to change to mbox folder " + missing + ": No such file or directory\n"
            "System error 2: No such file or directory\n"
            "unable to set default mbox quota for domain '" + kDomain + "' (processing 'ghost')\n"
            "System error 2: No such file or directory\n",
            r.err);
  EXPECT_NE(std::string::npos,
            r.out.find("unable to store default mbox quota|0|" + kDomainDir + "\n")) << r.out;
}

TEST_F(MailboxQuotaDb, ResetReadsTheDomainLimitOrSaysTheDomainIsMissing) {
  pf::resetMailboxQuota(pop_, "bücher.example", "sales");
  EXPECT_EQ("3000S,0C", quotaLine("sales"));
  server().exec("UPDATE orb.Limits SET value='unlimited' WHERE id=40");
  EXPECT_EQ(1, mailbox_reset_quota(kDomain.c_str(), "info"));
  EXPECT_EQ("0S,0C", quotaLine("info"));

  RunResult r = runThrowing([&] { pf::resetMailboxQuota(pop_, "nowhere.example", "info"); });
  EXPECT_EQ("No such domain nowhere.example\n", r.err);
  EXPECT_NE(std::string::npos,
            r.out.find("unable to remove quota|0|/var/qmail/mailnames/nowhere.example/info\n"))
      << r.out;

  writeFile("/etc/orb/.orb.shadow", "wrong\n", 0600);
  RunResult refused = runInChild([] { return mailbox_reset_quota(kDomain.c_str(), "info"); });
  EXPECT_EQ(0, refused.exitCode());
  EXPECT_EQ("unable to connect to MySQL\n", refused.err);
}

}  // namespace
