// The whole rename sequence of the real binary in the sandbox: users,
// plugins and handlers following an internationalised name, and for each
// late failure (authentication database, plugins, handlers) the exact output
// and the end state the tool promises: maps under the new name, the mail
// directory back under the old one, the database as its own step left it.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "testing/rename_testing.h"

namespace {

using namespace testing_support;
using namespace rename_testing;
namespace fs = boost::filesystem;

const std::string kPluginRecord = "/run/rename_plugin_calls";
const std::string kRefreshLog = "/run/handlers-refresh.log";

class RenameSequence : public SampleLayout {};

TEST_F(RenameSequence, EveryPlaceFollowsAnInternationalisedName) {
  installPlugin("test_plugins/recording.so");
  installPlugin("domain_list_plugin.so");
  ASSERT_EQ(0, shell("mkdir -p /var/lib/zanth/mail && "
                     "printf 'a.example\\nc.example\\n' > /var/lib/zanth/mail/local_domains")
                   .exitCode());
  const std::string ascii = "xn--bcher-kva.example";

  const RunResult r = runTool({"a.example", "bücher.example"});
  EXPECT_EQ(0, r.exitCode());
  EXPECT_EQ("", r.err);
  EXPECT_EQ("", r.out);

  EXPECT_EQ((Records{"c.example bob", ascii + " info"}), authUsers());
  EXPECT_EQ(kPluginDir + "recording.so a.example " + ascii + "\n", readFile(kPluginRecord));
  EXPECT_EQ(ascii + "\nc.example\n", readFile("/var/lib/zanth/mail/local_domains"));

  EXPECT_EQ((Records{"info@xa.example", "info@" + ascii, ascii}), handlerTargets());
  EXPECT_FALSE(pathExists("/opt/orb/handlers/smtp/recipient-domain/a.example"));
  EXPECT_NE(std::string::npos, readFile(kRefreshLog).find("refresh\n"));
}

struct LateFailure {
  const char* name;
  void (*cause)();
  std::string text, fatal;
  bool logged;    // the text is on standard output too
  Records users;  // the authentication database afterwards
};

const LateFailure kLateFailures[] = {
    // A database that refuses the update (a trigger an admin put there).
    {"DatabaseRefusesTheUpdate",
     [] {
       ASSERT_EQ(0, shell("sqlite3 " + kAuthDb +
                          " \"CREATE TRIGGER keep BEFORE UPDATE ON domains "
                          "BEGIN SELECT RAISE(ABORT, 'domains are kept'); END\"")
                        .exitCode());
     },
     "Unable to execute the mail domain authorization name change query: domains are kept\n",
     "Fatal error: zanth::mail::postfix::PostfixAuthenticationDBError"
     "(unable to update domain name in mail authentication database)\n",
     true, kUsersKept},
    {"CrashingPlugin", [] { installPlugin("test_plugins/crashing.so"); },
     "child killed by signal: 11\nplugin 'crashing.so' failed with status '1'\n", kServicesFailed,
     false, kUsersRenamed},
    {"MissingPluginDirectory", [] { fs::remove_all(kPluginDir); },
     "plugin directory '/usr/lib/zanth-9.0/domain_rename' not exists or not directory",
     kServicesFailed, false, kUsersRenamed},
    {"DamagedHandler", [] { fs::create_directory("/opt/orb/handlers/info/10-broken-Ab3xYz"); },
     "No such parameter 'handler-type' for handler '10-broken-Ab3xYz'\n"
     "Unable to get type of handler: 10-broken-Ab3xYz\n\n"
     "Some errors was occured in mass hook operation. errors: 1\n",
     kHandlersFailed, true,
     kUsersRenamed},
};

void PrintTo(const LateFailure& failure, std::ostream* out) { *out << failure.name; }

class RenameLateFailure : public RenameSequence, public testing::WithParamInterface<LateFailure> {};

TEST_P(RenameLateFailure, UndoesThePostfixStep) {
  const LateFailure& c = GetParam();
  c.cause();
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(c.text + c.fatal, r.err);
  EXPECT_EQ((c.logged ? c.text : "") + c.fatal, r.out);
  // Renamed back by the command's guard, then forward again by the map
  // guards of that reverse run, which also see the failure in flight.
  expectPlaces(sampleAfter, "a.example", c.users);
}

INSTANTIATE_TEST_SUITE_P(Causes, RenameLateFailure, testing::ValuesIn(kLateFailures),
                         [](const testing::TestParamInfo<LateFailure>& info) {
                           return info.param.name;
                         });

TEST_F(RenameSequence, FailedUndoOfThePostfixStepIsCritical) {
  // The plugin occupies the old directory name, so the guard cannot put the
  // mail directory back.
  installPlugin("test_plugins/squatting.so");
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ("plugin 'squatting.so' failed with status '1'\n" + kCritical + kServicesFailed, r.err);
  EXPECT_EQ(kCritical + kServicesFailed, r.out);
  for (const char* map : kMaps) EXPECT_EQ(sampleAfter(map), dumpMap(map)) << map;
  EXPECT_TRUE(pathExists(kMailNames + "b.example/info/Maildir/new/1.eml"));
  EXPECT_TRUE(pathExists(kMailNames + "a.example/squatter"));
}

}  // namespace
