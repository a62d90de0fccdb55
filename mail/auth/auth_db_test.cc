// Schema, creation, ownership and mail server detection of the
// authentication database, on real files and a real feature script.
#include "mail/auth/auth_db.h"

#include <gtest/gtest.h>

#include "testing/auth_testing.h"

namespace {

using namespace auth_testing;
using namespace testing_support;

TEST(AuthDbSchema, RecreateReplacesAnyFileWithTheExactSchema) {
  ScratchDb db;
  writeFile(db.path, "not a database at all\n");
  ASSERT_EQ(0, mail_auth_recreate());
  const Rows expected = {
      "table|domains|CREATE TABLE domains (  id     INTEGER PRIMARY KEY AUTOINCREMENT, "
      "name   VARCHAR(255) UNIQUE, status INTEGER NOT NULL DEFAULT 0)",
      "index|sqlite_autoindex_domains_1|NULL",
      "table|sqlite_sequence|CREATE TABLE sqlite_sequence(name,seq)",
      "index|domains_name|CREATE INDEX domains_name ON domains(name)",
      "trigger|fkd_users_domains_id|CREATE TRIGGER fkd_users_domains_id  BEFORE DELETE ON domains  "
      "FOR EACH ROW BEGIN    DELETE FROM users WHERE dom_id = OLD.id;  END",
      "table|users|CREATE TABLE users(  id           INTEGER PRIMARY KEY AUTOINCREMENT, "
      "dom_id       INTEGER NOT NULL, name         VARCHAR(255) NOT NULL, "
      "userPassword VARCHAR(255), cmusaslsecretPLAIN VARCHAR(255), "
      "status INT NOT NULL DEFAULT 0, UNIQUE(name, dom_id))",
      "index|sqlite_autoindex_users_1|NULL",
      "index|users_name|CREATE INDEX users_name ON users(name)",
      "index|users_dom_id|CREATE INDEX users_dom_id ON users(dom_id)",
      "trigger|fki_users_domains_id|CREATE TRIGGER fki_users_domains_id  BEFORE INSERT ON users  "
      "FOR EACH ROW BEGIN    "
      "SELECT RAISE(ROLLBACK, 'insert on table \"users\" violates foreign key constraint "
      "\"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END",
      "trigger|fku_users_domains_id|CREATE TRIGGER fku_users_domains_id  BEFORE UPDATE ON users  "
      "FOR EACH ROW BEGIN    "
      "SELECT RAISE(ROLLBACK, 'update on table \"users\" violates foreign key constraint "
      "\"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END",
  };
  // The triggers' text is their behaviour: running them would test SQLite.
  EXPECT_EQ(expected, db.rows("SELECT type, name, sql FROM sqlite_master ORDER BY rowid"));
}

TEST(AuthDbInit, PostfixStyleGetsItsPathOwnerAndModes) {
  ScratchDb guard;  // puts mail_auth_db_path back
  ASSERT_EQ(0, mail_auth_init(1));
  EXPECT_STREQ("/var/spool/postfix/zanth/passwd.db", mail_auth_db_path);
  const std::string owner_and_mode = "stat --printf %U:%G:%#a /var/spool/postfix/zanth";
  EXPECT_EQ("postfix:root:0770", shell(owner_and_mode).out);
  EXPECT_EQ("postfix:root:0460", shell(owner_and_mode + "/passwd.db").out);
  EXPECT_EQ(Rows{"0"}, sqlRows(mail_auth_db_path, "SELECT count(*) FROM users"));
}

TEST(AuthDbDetect, ReadsTheServerFromTheFeatureQuery) {
  const char kUndetermined[] = "6:Unable to determine mail server type from ``mxkeep --features''";
  const struct {
    const char* output;
    int style;
    Rows log;
  } cases[] = {
      {"$features['SMTP_Server'] = 'postfi\";\n", 1, {}},
      {"$features['SMTP_Server'] = 'qmail';\n$features['SMTP_Server'] = 'postfix';\n", 0, {}},
      {"$features['SMTP_Server'] = \"exim\";\n$features['SMTP_Server'] = \"Postfix\";\n",
       1,
       {"6:Unknown server style \"exi\", skipped"}},
      {"$features['SMTP_Server'] = qmail;\n",
       -1,
       {"6:Unparseable line \"$features['SMTP_Server'] = qmail;\", skipped", kUndetermined}},
  };
  ScratchDb db;  // for the log capture
  ASSERT_EQ(0, shell("mkdir -p /opt/orb/admin/sbin").exitCode());
  for (const auto& c : cases) {
    testing_support::log_capture->clear();
    writeFile("/opt/orb/admin/sbin/mxkeep",
              std::string("#!/bin/sh\n[ \"$1\" = --features ] || exit 1\ncat <<'EOF'\n") +
                  c.output + "EOF\n",
              0755);
    EXPECT_EQ(c.style, mail_auth_detect_style()) << c.output;
    EXPECT_EQ(c.log, captured_log()) << c.output;
  }
}

}  // namespace
