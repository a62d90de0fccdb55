// Location, schema, creation, ownership and mail server detection of the
// authentication database, on real files: what sqlite_master holds, what
// the triggers do, owners and modes on disk, and the feature query run as
// a real script at its fixed path.
#include "mail/auth/auth_db.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include "mail/auth/auth_testing.h"

namespace {

using auth_testing::LogCapture;
using auth_testing::PathGuard;
using auth_testing::Rows;

constexpr char kQmailPath[] = "/var/lib/zanth/mail/auth/passwd.db";
constexpr char kPostfixPath[] = "/var/spool/postfix/zanth/passwd.db";

// "uid:gid:mode" of a path, mode in octal.
std::string ownerOf(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return "missing";
  char text[64];
  std::snprintf(text, sizeof text, "%u:%u:%04o", unsigned(st.st_uid), unsigned(st.st_gid),
                unsigned(st.st_mode & 07777));
  return text;
}

TEST(AuthDbLocation, StylesSelectTheirFilesAndOthersKeepThePath) {
  PathGuard guard;
  EXPECT_STREQ(kQmailPath, mail_auth_db_path) << "the initial location is qmail's";
  EXPECT_EQ(0, mail_auth_select_style(1));
  EXPECT_EQ(1, mail_auth_select_style(2));
  EXPECT_EQ(-2, mail_auth_select_style(-1));
  EXPECT_STREQ(kPostfixPath, mail_auth_db_path);
}

TEST(AuthDbSchema, RecreateReplacesTheFileWithTheExactSchema) {
  PathGuard guard;
  testing_support::TempDir dir;
  const std::string path = dir / "passwd.db";
  testing_support::writeFile(path, "not a database at all\n");
  mail_auth_set_path(path.c_str());
  ASSERT_EQ(0, mail_auth_recreate());
  const Rows expected = {
      "table|domains|CREATE TABLE domains (  id     INTEGER PRIMARY KEY AUTOINCREMENT, name   VARCHAR(255) UNIQUE, status INTEGER NOT NULL DEFAULT 0)",
      "index|sqlite_autoindex_domains_1|NULL",
      "table|sqlite_sequence|CREATE TABLE sqlite_sequence(name,seq)",
      "index|domains_name|CREATE INDEX domains_name ON domains(name)",
      "trigger|fkd_users_domains_id|CREATE TRIGGER fkd_users_domains_id  BEFORE DELETE ON domains  FOR EACH ROW BEGIN    DELETE FROM users WHERE dom_id = OLD.id;  END",
      "table|users|CREATE TABLE users(  id           INTEGER PRIMARY KEY AUTOINCREMENT, dom_id       INTEGER NOT NULL, name         VARCHAR(255) NOT NULL, userPassword VARCHAR(255), cmusaslsecretPLAIN VARCHAR(255), status INT NOT NULL DEFAULT 0, UNIQUE(name, dom_id))",
      "index|sqlite_autoindex_users_1|NULL",
      "index|users_name|CREATE INDEX users_name ON users(name)",
      "index|users_dom_id|CREATE INDEX users_dom_id ON users(dom_id)",
      "trigger|fki_users_domains_id|CREATE TRIGGER fki_users_domains_id  BEFORE INSERT ON users  FOR EACH ROW BEGIN    SELECT RAISE(ROLLBACK, 'insert on table \"users\" violates foreign key constraint \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END",
      "trigger|fku_users_domains_id|CREATE TRIGGER fku_users_domains_id  BEFORE UPDATE ON users  FOR EACH ROW BEGIN    SELECT RAISE(ROLLBACK, 'update on table \"users\" violates foreign key constraint \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END",
  };
  EXPECT_EQ(expected, auth_testing::sqlRows(path, "SELECT type, name, sql FROM sqlite_master ORDER BY rowid"));
}

TEST(AuthDbSchema, TriggersRefuseOrphansAndCascadeDeletes) {
  auth_testing::ScratchDb db(
      "INSERT INTO domains (id, name) VALUES (1, 'a.test'), (2, 'b.test');"
      "INSERT INTO users (dom_id, name) VALUES (1, 'x'), (1, 'y'), (2, 'z');");
  std::string error;
  auth_testing::sqlRows(db.path(), "INSERT INTO users (dom_id, name) VALUES (9, 'w')", &error);
  EXPECT_EQ("insert on table \"users\" violates foreign key constraint \"fk_domains_id\"", error);
  auth_testing::sqlRows(db.path(), "UPDATE users SET dom_id = 9 WHERE name = 'z'", &error);
  EXPECT_EQ("update on table \"users\" violates foreign key constraint \"fk_domains_id\"", error);
  db.rows("DELETE FROM domains WHERE name = 'a.test'");
  EXPECT_EQ(Rows{"2|z"}, db.rows("SELECT dom_id, name FROM users"));
}

TEST(AuthDbInit, EachStyleGetsItsOwnerAndModes) {
  PathGuard guard;
  const struct passwd* postfix = getpwnam("postfix");
  ASSERT_NE(nullptr, postfix);
  const std::string postfix_owner = std::to_string(postfix->pw_uid) + ":0:";
  ASSERT_EQ(0, mail_auth_init(1));
  EXPECT_STREQ(kPostfixPath, mail_auth_db_path);
  EXPECT_EQ(postfix_owner + "0770", ownerOf("/var/spool/postfix/zanth"));
  EXPECT_EQ(postfix_owner + "0460", ownerOf(kPostfixPath));
  EXPECT_EQ(Rows{"0"}, auth_testing::sqlRows(kPostfixPath, "SELECT count(*) FROM users"));

  ASSERT_EQ(0, mail_auth_init(0));
  EXPECT_EQ("0:0:0750", ownerOf("/var/lib/zanth/mail/auth"));
  EXPECT_EQ("0:0:0600", ownerOf(kQmailPath));
}

TEST(AuthDbInit, PathsWithoutARealDirectoryAreRejected) {
  PathGuard guard;
  for (const char* path : {"/passwd.db", "passwd.db", "/"}) {
    mail_auth_set_path(path);
    LogCapture log;
    EXPECT_EQ(-1, mail_auth_set_permissions(0, 0, 0750, 0600)) << path;
    EXPECT_EQ(Rows{std::string("2:Invalid mail authentication DB path ") + path}, log.lines());
  }
}

// One run of the feature query: its output, the style expected, and
// everything logged on the way.
struct DetectCase {
  const char* output;
  int style;
  Rows log;
};

constexpr char kUndetermined[] =
    "6:Unable to determine mail server type from ``mxkeep --features''";

TEST(AuthDbDetect, ReadsTheServerFromTheFeatureQuery) {
  const DetectCase cases[] = {
      {"$features['SMTP_Server'] = \"qmail\";\n", 0, {}},
      {"$features['SMTP_Server'] = 'QMAIL';\n", 0, {}},
      {"$features['SMTP_Server'] = 'postfi\";\n", 1, {}},
      {"$features['Webmail'] = \"postfix\";\n$features['SMTP_Server_Name'] = \"postfix\";\n"
       "$features['SMTP_Server'] = 'qmail';\n$features['SMTP_Server'] = 'postfix';\n",
       0, {}},
      {"$features['SMTP_Server'] = \"exim\";\n$features['SMTP_Server'] = \"Postfix\";\n", 1,
       {"6:Unknown server style \"exi\", skipped"}},
      {"  $features['SMTP_Server'] = \"postfix\";\n", -1, {kUndetermined}},
      {"$features['SMTP_Server'] = qmail;\n", -1,
       {"6:Unparseable line \"$features['SMTP_Server'] = qmail;\", skipped", kUndetermined}},
      {"$features['SMTP_Server'] = \"\";\n", -1,
       {"6:Unknown server style \"\", skipped", kUndetermined}},
  };
  ASSERT_EQ(0, testing_support::shell("mkdir -p /opt/orb/admin/sbin").exitCode());
  for (const DetectCase& c : cases) {
    testing_support::writeFile("/opt/orb/admin/sbin/mxkeep",
                               std::string("#!/bin/sh\n[ \"$1\" = --features ] || exit 1\n"
                                           "cat <<'EOF'\n") + c.output + "EOF\n",
                               0755);
    LogCapture log;
    EXPECT_EQ(c.style, mail_auth_detect_style()) << c.output;
    EXPECT_EQ(c.log, log.lines()) << c.output;
  }
}

}  // namespace
