// The whole rename sequence of the real binary in the sandbox: every place
// renamed on success, and for each late failure (authentication database,
// plugins, handlers) the exact output and the end state the tool promises:
// maps under the new name, the mail directory back under the old one, the
// authentication database as its own step left it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "testing/auth_testing.h"
#include "mail/auth/auth_users.h"
#include "mail/handlers/handler_actions.h"
#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;
namespace fs = boost::filesystem;

const char* const kMaps[] = {kVirtualDomainsMap, kVirtualMap, kVmailboxMap};
const std::string kMailNames = "/var/qmail/mailnames/";
const std::string kAuthDb = "/var/spool/postfix/zanth/passwd.db";
const std::string kPluginDir = "/usr/lib/zanth-9.0/domain_rename/";
const std::string kPluginRecord = "/run/rename_plugin_calls";
const std::string kRefreshLog = "/run/handlers-refresh.log";

// "domain user" for every user, sorted.
std::vector<std::string> authUsers() {
  return auth_testing::sqlRows(kAuthDb,
                               "SELECT d.name || ' ' || u.name FROM users u, domains d "
                               "WHERE u.dom_id = d.id ORDER BY d.name, u.name");
}

void installPlugin(const std::string& module) {
  ASSERT_EQ(0, shell("install -m 0644 " + buildPath(module) + " " + kPluginDir).exitCode());
}

class RenameSequence : public ::testing::Test {
 protected:
  void SetUp() override {
    makeSampleMailLayer();
    writeFile("/usr/lib/zanth-9.0/handlers-tmpfs", "#!/bin/sh\necho \"$@\" >> " + kRefreshLog + "\n",
              0755);
    ASSERT_EQ(0, handler_add("spam", "recipient", "info@a.example", "/bin/true", "ctx", "smtp",
                             "10", kHandlerSwitchOn));
    ASSERT_EQ(0, handler_add("virus", "recipient-domain", "a.example", "/bin/true", "ctx", "smtp",
                             "20", kHandlerSwitchOn));
    ASSERT_EQ(0, handler_add("spam", "recipient", "info@xa.example", "/bin/true", "ctx", "smtp",
                             "10", kHandlerSwitchOn));
  }

  static bool hasHandler(const char* tmpl, const char* type, const char* target) {
    char* name = handler_find(tmpl, type, target, "smtp");
    std::free(name);
    return name != nullptr;
  }

  // Runs a.example -> b.example, which must fail with `output` on standard
  // error (`stdoutOutput` on standard output), and checks the late-failure
  // end state.
  static void expectLateFailure(const std::string& output, const std::string& stdoutOutput,
                                const std::string& authDomain) {
    const RunResult r = runTool({"a.example", "b.example"});
    EXPECT_EQ(1, r.exitCode());
    EXPECT_EQ(output, r.err);
    EXPECT_EQ(stdoutOutput, r.out);
    // Renamed back by the command's guard, then forward again by the map
    // guards of that reverse run, which also see the failure in flight.
    for (const char* map : kMaps) EXPECT_EQ(sampleAfter(map), dumpMap(map)) << map;
    EXPECT_TRUE(pathExists(kMailNames + "a.example/info/Maildir/new/1.eml"));
    EXPECT_FALSE(pathExists(kMailNames + "b.example"));
    EXPECT_EQ((std::vector<std::string>{authDomain + " info", "c.example bob"}), authUsers());
  }
};

TEST_F(RenameSequence, EveryPlaceFollowsAnInternationalisedName) {
  installPlugin("test_plugins/recording.so");
  installPlugin("domain_list_plugin.so");
  ASSERT_EQ(0, shell("mkdir -p /var/lib/zanth/mail && "
                     "printf 'a.example\\nc.example\\n' > /var/lib/zanth/mail/local_domains")
                   .exitCode());
  const std::string ascii = "xn--bcher-kva.example";

  const RunResult r = runTool({"a.example", "b\xc3\xbc" "cher.example"});
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("", r.err);
  EXPECT_EQ("", r.out);

  EXPECT_EQ(ascii + "/info/", queryMap(kVmailboxMap, "info@" + ascii));
  EXPECT_EQ("VIRTUAL", queryMap(kVirtualDomainsMap, ascii));
  EXPECT_TRUE(pathExists(kMailNames + ascii + "/info/Maildir/new/1.eml"));
  EXPECT_FALSE(pathExists(kMailNames + "a.example"));
  EXPECT_EQ((std::vector<std::string>{"c.example bob", ascii + " info"}), authUsers());
  EXPECT_EQ(kPluginDir + "recording.so a.example " + ascii + "\n", readFile(kPluginRecord));
  EXPECT_EQ(ascii + "\nc.example\n", readFile("/var/lib/zanth/mail/local_domains"));

  EXPECT_TRUE(hasHandler("spam", "recipient", ("info@" + ascii).c_str()));
  EXPECT_TRUE(hasHandler("virus", "recipient-domain", ascii.c_str()));
  EXPECT_FALSE(hasHandler("spam", "recipient", "info@a.example"));
  EXPECT_FALSE(hasHandler("virus", "recipient-domain", "a.example"));
  EXPECT_TRUE(hasHandler("spam", "recipient", "info@xa.example"));
  EXPECT_FALSE(pathExists("/opt/orb/handlers/smtp/recipient-domain/a.example"));
  EXPECT_NE(std::string::npos, readFile(kRefreshLog).find("refresh\n"));
}

TEST_F(RenameSequence, TakenNameInAuthenticationDatabase) {
  ASSERT_EQ(0, mail_auth_add_user("old", "b.example", "secret", 0));
  const std::string text =
      "Unable to execute the mail domain authorization name change query: "
      "UNIQUE constraint failed: domains.name\n"
      "Fatal error: zanth::mail::postfix::PostfixAuthenticationDBError"
      "(unable to update domain name in mail authentication database)\n";
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(text, r.err);
  EXPECT_EQ(text, r.out);
  for (const char* map : kMaps) EXPECT_EQ(sampleAfter(map), dumpMap(map)) << map;
  EXPECT_TRUE(pathExists(kMailNames + "a.example/info"));
  EXPECT_FALSE(pathExists(kMailNames + "b.example"));
  EXPECT_EQ((std::vector<std::string>{"a.example info", "b.example old", "c.example bob"}),
            authUsers());
  EXPECT_TRUE(hasHandler("spam", "recipient", "info@a.example"));
}

TEST_F(RenameSequence, OldNameMissingFromAuthenticationDatabase) {
  auth_testing::sqlRows(kAuthDb, "DELETE FROM domains WHERE name='a.example'");
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  EXPECT_TRUE(pathExists(kMailNames + "b.example/info"));
  EXPECT_EQ((std::vector<std::string>{"c.example bob"}), authUsers());
}

const std::string kServicesFailed =
    "Fatal error: zanth::mail::postfix::PostfixError(unable to rename some of services)\n";

struct LateFailure {
  const char* name;
  void (*cause)();
  std::string text, fatal;
  bool logged;  // the text is on standard output too
};

const LateFailure kLateFailures[] = {
    {"RefusingPlugin", [] { installPlugin("test_plugins/failing.so"); },
     "plugin 'failing.so' failed with status '1'\n", kServicesFailed, false},
    {"CrashingPlugin", [] { installPlugin("test_plugins/crashing.so"); },
     "child killed by signal: 11\nplugin 'crashing.so' failed with status '1'\n", kServicesFailed, false},
    {"MissingPluginDirectory", [] { fs::remove_all(kPluginDir); },
     "plugin directory '/usr/lib/zanth-9.0/domain_rename' not exists or not directory", kServicesFailed, false},
    {"DamagedHandler", [] { fs::create_directory("/opt/orb/handlers/info/10-broken-Ab3xYz"); },
     "No such parameter 'handler-type' for handler '10-broken-Ab3xYz'\n"
     "Unable to get type of handler: 10-broken-Ab3xYz\n\n"
     "Some errors was occured in mass hook operation. errors: 1\n",
     "Fatal error: zanth::mail::postfix::PostfixError(Unable to rename domain handlers)\n", true},
};

void PrintTo(const LateFailure& failure, std::ostream* out) { *out << failure.name; }

class RenameLateFailure : public RenameSequence, public testing::WithParamInterface<LateFailure> {};

TEST_P(RenameLateFailure, UndoesThePostfixStep) {
  const LateFailure& c = GetParam();
  c.cause();
  expectLateFailure(c.text + c.fatal, (c.logged ? c.text : "") + c.fatal, "b.example");
  if (!c.logged) { EXPECT_TRUE(hasHandler("spam", "recipient", "info@a.example")); }
}

INSTANTIATE_TEST_SUITE_P(Causes, RenameLateFailure, testing::ValuesIn(kLateFailures),
                         [](const testing::TestParamInfo<LateFailure>& info) { return info.param.name; });

TEST_F(RenameSequence, FailedUndoOfThePostfixStepIsCritical) {
  // The plugin occupies the old directory name, so the guard cannot put the
  // mail directory back.
  installPlugin("test_plugins/squatting.so");
  const std::string critical =
      "CRITICAL ERROR: Unable to properly restore Postfix Virtual Domains Database used by Zanth.\n"
      "Mail system may be not usable at the moment and it cannot be repaired automatically.\n"
      "Constact Quillon support to resolve this issue.\n";
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("plugin 'squatting.so' failed with status '1'\n" + critical + kServicesFailed, r.err);
  EXPECT_EQ(critical + kServicesFailed, r.out);
  for (const char* map : kMaps) EXPECT_EQ(sampleAfter(map), dumpMap(map)) << map;
  EXPECT_TRUE(pathExists(kMailNames + "b.example/info/Maildir/new/1.eml"));
  EXPECT_TRUE(pathExists(kMailNames + "a.example/squatter"));
}

}  // namespace
