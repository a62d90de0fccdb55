// Quota operations that read the product database, against the real
// MariaDB server of testing/mariadb_server.h and real mailboxes: which
// mailboxes get the default quota, the domain's own "mbox_quota" limit,
// and the exact texts when the domain is missing.
#include <gtest/gtest.h>

#include <boost/filesystem/exception.hpp>

#include <string>

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

class MailboxQuotaDb : public ProductDbTest {
 protected:
  void SetUp() override {
    ProductDbTest::SetUp();
    // The panel's mailbox table; only the columns the quota code reads.
    server().exec(
        "USE orb;"
        "CREATE TABLE mail (id INT UNSIGNED AUTO_INCREMENT PRIMARY KEY, dom_id INT UNSIGNED,"
        " mail_name VARCHAR(245), mbox_quota VARCHAR(32));"
        "INSERT INTO domains VALUES (12, 'xn--bcher-kva.example', 0, NULL, 40, NULL),"
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
  pf::removeDomainQuota(pop_, kDomain);
  EXPECT_EQ("0S,0C", quotaLine("info"));
  EXPECT_EQ("<none>", quotaLine("sales"));
}

TEST_F(MailboxQuotaDb, ResetReadsTheDomainLimitOrSaysTheDomainIsMissing) {
  pf::resetMailboxQuota(pop_, "bücher.example", "sales");
  EXPECT_EQ("3000S,0C", quotaLine("sales"));
  server().exec("UPDATE orb.Limits SET value='unlimited' WHERE id=40");
  EXPECT_EQ(1, mailbox_reset_quota(kDomain.c_str(), "info"));
  EXPECT_EQ("0S,0C", quotaLine("info"));

  RunResult r = runInChild([&] {
    try {
      pf::resetMailboxQuota(pop_, "nowhere.example", "info");
    } catch (const boost::filesystem::filesystem_error& e) {
      const bool as_said = std::string(e.what()).rfind("unable to remove quota", 0) == 0 &&
                           e.path1() == "/var/qmail/mailnames/nowhere.example/info";
      return as_said && e.code().value() == 0 ? 0 : 1;
    }
    return 2;
  });
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("No such domain nowhere.example\n", r.err);
}

}  // namespace
