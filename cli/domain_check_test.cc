// mxkeep_domain_check run as a real binary in the sandbox: its prediction
// held against what the real rename then does, each hazard from a real
// layout, the report after interrupted renames and the recovery it names,
// and proof that it writes nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "mail/auth/auth_users.h"
#include "testing/rename_testing.h"

namespace {

using namespace testing_support;
using namespace rename_testing;
using Lines = std::vector<std::string>;

RunResult runCheck(const std::vector<std::string>& args) {
  std::vector<std::string> argv{MXKEEP_CHECK_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv);
}

// Each line of `expected` begins a line of text, in this order.
bool hasLinesInOrder(const std::string& text, const std::string& expected) {
  std::string::size_type at = 0;
  for (const std::string& line : lines(expected))
    if ((at = ("\n" + text).find("\n" + line, at)) == std::string::npos) return false;
  return true;
}

Lines minus(Lines a, const Lines& b) {
  Lines result;
  for (const std::string& x : a)
    if (std::find(b.begin(), b.end(), x) == b.end()) result.push_back(x);
  return result;
}

// Each place the check reports on, read as an outside observer sees it, in
// the words of the check's findings: a change it predicts for a place is a
// line that leaves the place and a line that enters it.
struct Place {
  const char* name;
  Lines (*state)();
};

Lines mapState(const char* map) {
  return pathExists(std::string(map).substr(5) + ".db") ? dumpMap(map) : Lines();
}

const Place kPlaces[] = {
    {"virtual_domains", [] { return mapState(kVirtualDomainsMap); }},
    {"virtual", [] { return mapState(kVirtualMap); }},
    {"vmailbox", [] { return mapState(kVmailboxMap); }},
    // An empty directory is no mail directory: the move replaces it.
    {"mail_directory",
     [] { return lines(shell("find " + kMailNames + "* -maxdepth 0 ! -empty").out); }},
    {"auth_database",
     [] {
       return auth_testing::sqlRows(
           kAuthDb,
           "SELECT 'domain ' || d.name || ' (' || count(u.id) || ' user' || "
           "CASE count(u.id) WHEN 1 THEN ')' ELSE 's)' END "
           "FROM domains d LEFT JOIN users u ON u.dom_id = d.id GROUP BY d.id ORDER BY d.name");
     }},
    {"handlers", handlerTargets},
};

// "before => after" of each change the check reports for a place, as two
// sorted lists. Outside the maps a change names its subject first:
// "subject: before => after".
void predicted(const std::string& report, const Place& place, Lines* before, Lines* after) {
  const std::string head = std::string(place.name) + ": change: ";
  for (const std::string& line : lines(report)) {
    if (line.compare(0, head.size(), head) != 0) continue;
    std::string change = line.substr(head.size());
    if (&place >= &kPlaces[3]) change = change.substr(change.find(": ") + 2);
    const std::string::size_type arrow = change.find(" => ");
    before->push_back(change.substr(0, arrow));
    after->push_back(change.substr(arrow + 4));
  }
  std::sort(before->begin(), before->end());
  std::sort(after->begin(), after->end());
}

// Names, kinds, sizes, modes, times and contents of everything the rename
// may touch (and the lock files), to show that the check wrote nothing.
std::string snapshot() {
  const std::string places =
      "/var/spool/postfix/zanth /var/qmail/mailnames /opt/orb/handlers /var/lock/files";
  return shell("find " + places + " -printf '%p %y %s %m %T@ %C@\\n' | sort; find " + places +
               " -type f -exec md5sum {} + | sort")
      .out;
}

// After an interrupted rename of a.example to b.example: with the cause
// removed, the recovery command the check names (with the other name filled
// in) completes the rename, and the check then finds every place agreeing.
void expectRecoveryCompletes() {
  ASSERT_EQ(0, shell("rm -f " + kPluginDir + "*").exitCode());
  EXPECT_EQ(0, runTool({"a.example", "b.example"}).exitCode());
  const RunResult after = runCheck({"b.example"});
  EXPECT_EQ(0, after.exitCode()) << after.out;
  EXPECT_TRUE(hasLinesInOrder(after.out, "result: every place agrees")) << after.out;
  const RunResult old = runCheck({"a.example"});
  EXPECT_EQ(0, old.exitCode()) << old.out;
  EXPECT_TRUE(hasLinesInOrder(old.out, "result: the name is in no place")) << old.out;
}

class DomainCheck : public SampleLayout {};

struct Scenario {
  const char* name;
  std::string setup;  // shell command on the sample layer
  int status;         // the check's
  bool renameFails;
  std::string finding;  // lines the check must report (their beginnings), in order
  // Places whose predicted change a rename that fails late takes back or
  // never makes.
  std::string undone = "";
  // After such a failure: lines the check of the new name reports, in order.
  std::string afterwards = "";
  const char* oldName = "a.example";
  const char* newName = "b.example";
};

// Every scenario of the rename's own tests and each hazard from a real
// layout: the check, then the real rename, which must do what was predicted
// or fail where a failure was; after a late failure the check names the
// recovery, which completes the rename.
TEST_F(DomainCheck, PredictionIsWhatTheRenameDoesAndWritesNothing) {
  const std::string vmailbox = kSpool + "/vmailbox", virt = kSpool + "/virtual";
  const std::string lock = "/var/lock/files/$(printf %s " + vmailbox + " | md5sum | cut -c1-32)";
  const std::string sql = "sqlite3 " + kAuthDb + " \"";
  const std::string takenName = sql + "INSERT INTO domains(name) VALUES('b.example')\"";
  const Scenario scenarios[] = {
      // Each kind of finding, as the report words it and in its order.
      {"typical", "", 3, false,
       "virtual_domains: change: a.example VIRTUAL => b.example VIRTUAL\n"
       "vmailbox: change: odd@c.example a.example.org/odd/ => odd@c.example b.example.org/odd/\n"
       "mail_directory: change: move: /var/qmail/mailnames/a.example => "
       "/var/qmail/mailnames/b.example\n"
       "auth_database: change: /var/spool/postfix/zanth/passwd.db: "
       "domain a.example (1 user) => domain b.example (1 user)\n"
       "plugins: info: none in /usr/lib/zanth-9.0/domain_rename\n"
       "handlers: change: 20-virus-\n"
       "handlers_refresh: info: runs after each moved handler: "
       "/usr/lib/zanth-9.0/handlers-tmpfs refresh\n"
       "vmailbox: hazard: the path rule rewrites a value outside the domain's directory: "
       "odd@c.example a.example.org/odd/\n"
       "result: the rename would succeed, with 1 hazard\n"},
      {"idn", "", 3, false, "", "", "", "a.example", "bücher.example"},
      {"in no map", "mkdir -p " + kMailNames + "d.example/x", 0, false, "", "", "", "d.example",
       "e.example"},
      {"no mail directory", "rm -r " + kMailNames + "a.example", 1, true, ""},
      // Left so by a rename that stopped after its move: the rename takes
      // the move as done, and so must the check.
      {"directory already moved", "mv " + kMailNames + "a.example " + kMailNames + "b.example", 3,
       false,
       "mail_directory: info: already under the new name, the rename takes the move as done: "
       "/var/qmail/mailnames/b.example"},
      {"broken map", "rm " + vmailbox + ".db", 1, true, ""},
      {"old name not in the database", sql + "DELETE FROM domains WHERE name='a.example'\"", 3,
       false, ""},
      {"taken name", takenName, 1, true,
       "auth_database: failure: both names present, the rename refuses before changing "
       "anything: domain a.example (1 user) and domain b.example (0 users)"},
      {"failing plugin",
       "install -m 0644 " + buildPath("test_plugins/failing.so") + " " + kPluginDir, 3, true,
       "plugins: info: runs " + kPluginDir + "failing.so", "mail_directory handlers",
       "result: the places disagree (found in: virtual_domains, virtual, vmailbox, auth_database; "
       "missing from: mail_directory, handlers)\n"
       "recovery: mxkeep_domain_rename a.example b.example\n"},
      {"damaged handler", "mkdir /opt/orb/handlers/info/10-broken-Ab3xYz", 1, true, ""},
      {"look-alike", "mkdir -p " + kMailNames + "xa.example/v", 0, false, "", "", "", "xa.example",
       "y.example"},
      {"record of the new name",
       "v=" + virt +
           "; postmap -s hash:$v > /run/v && echo 'x@b.example x@b.example' >> /run/v "
           "&& cp /run/v $v && postmap hash:$v && rm $v",
       3, false,
       "virtual: hazard: record of the new name already present, an undo would rename it too: "
       "x@b.example x@b.example"},
      {"new name in the database only",
       sql + "DELETE FROM domains WHERE name='a.example'; "
             "INSERT INTO domains(name) VALUES('b.example')\"",
       3, false, "auth_database: hazard: new name already present: domain b.example (0 users)"},
      {"empty target directory", "mkdir " + kMailNames + "b.example", 3, false,
       "mail_directory: hazard: target exists and is empty, the move replaces it: "
       "/var/qmail/mailnames/b.example"},
      {"target directory", "mkdir -p " + kMailNames + "b.example/x", 1, true,
       "mail_directory: failure: both names present, the rename refuses before changing "
       "anything: /var/qmail/mailnames/a.example and /var/qmail/mailnames/b.example"},
      {"handler without context", "rm /opt/orb/handlers/info/20-virus-*/context", 1, true,
       "handlers: failure: handler 20-virus-"},
      {"no plugin directory", "rm -r " + kPluginDir, 1, true,
       "plugins: failure: plugin directory missing, the rename fails here: "
       "/usr/lib/zanth-9.0/domain_rename"},
      {"text source left", "echo 'edited by hand' > " + vmailbox, 3, false,
       "vmailbox: hazard: text source left beside the map, the rename overwrites and removes it: " +
           vmailbox},
      // Held until the check is over, then let go so the rename can go on.
      {"map lock held",
       "mkfifo /run/held /run/release && (flock -x " + lock +
           " sh -c 'echo > /run/held; read x < /run/release' >/dev/null 2>&1 &) && "
           "read x < /run/held",
       3, false, "vmailbox: hazard: map lock held by another process, the rename waits for it"},
  };
  for (const Scenario& s : scenarios) {
    SCOPED_TRACE(s.name);
    fresh();
    ASSERT_EQ(0, shell(s.setup).exitCode());
    Lines was[std::size(kPlaces)];
    for (size_t i = 0; i < std::size(kPlaces); ++i) was[i] = kPlaces[i].state();

    const std::string written = snapshot();
    const RunResult check = runCheck({s.oldName, s.newName});
    runCheck({"--json", s.oldName});
    EXPECT_EQ(written, snapshot());
    if (pathExists("/run/release")) shell("echo > /run/release");
    EXPECT_EQ(s.status, check.exitCode()) << check.out << check.err;
    EXPECT_EQ(s.status == 1, check.out.find(": failure: ") != std::string::npos) << check.out;
    EXPECT_TRUE(hasLinesInOrder(check.out, s.finding)) << check.out;

    const RunResult rename = runTool({s.oldName, s.newName});
    EXPECT_EQ(s.renameFails ? 1 : 0, rename.exitCode()) << rename.err;
    if (s.status == 1) continue;  // the failure was predicted and the rename undid its maps
    // What the rename changed is exactly what the check predicted, place by
    // place, but for the places a rename failing late takes back or never reaches.
    for (size_t i = 0; i < std::size(kPlaces); ++i) {
      SCOPED_TRACE(kPlaces[i].name);
      Lines before, after;
      predicted(check.out, kPlaces[i], &before, &after);
      const Lines now = kPlaces[i].state();
      if (s.undone.find(kPlaces[i].name) != std::string::npos) {
        EXPECT_FALSE(before.empty());
        EXPECT_EQ(was[i], now);
      } else {
        EXPECT_EQ(before, minus(was[i], now));
        EXPECT_EQ(after, minus(now, was[i]));
      }
    }
    if (s.afterwards.empty()) continue;
    const RunResult r = runCheck({s.newName});
    EXPECT_EQ(1, r.exitCode()) << r.out;
    EXPECT_TRUE(hasLinesInOrder(r.out, s.afterwards)) << r.out;
    expectRecoveryCompletes();
  }
}

TEST_F(DomainCheck, AfterAKilledRenameNamesTheRecoveryThatCompletesIt) {
  {
    const PostmapStandIn postmap(
        "[ \"$1\" = -s ] && [ \"$2\" = " + std::string(kVirtualDomainsMap) +
        " ] && kill -KILL $PPID\nexec \"$REAL\" \"$@\"");
    EXPECT_NE(0, runTool({"a.example", "b.example"}).status);
  }
  const RunResult r = runCheck({"a.example"});
  EXPECT_EQ(1, r.exitCode()) << r.out;
  EXPECT_TRUE(hasLinesInOrder(
      r.out,
      "virtual_domains: failure: text source left beside the map by an interrupted rewrite: "
      "/var/spool/postfix/zanth/virtual_domains\n"
      "result: the places disagree (found in: virtual_domains, virtual, vmailbox, "
      "mail_directory, auth_database, handlers; missing from: none)\n"
      "recovery: mxkeep_domain_rename a.example <new_domain_name>\n"))
      << r.out;
  expectRecoveryCompletes();
}

TEST(DomainCheckCommand, UsageErrorsAndJson) {
  const struct {
    std::vector<std::string> args;
    int status;
    std::string err;
  } cases[] = {
      {{"--json"}, 2, "Not enough arguments\n"},
      {{"a", "b", "c"}, 2, "Invalid arguments\n"},
      {{"", "b"}, 2, "Empty old domain name\n"},
      {{"a", ""}, 2, "Empty new domain name\n"},
      {{""}, 2, "Empty domain name\n"},
      {{"--", "-a"}, 2, "Invalid argument '-a'\n"},
      {{"--help"}, 0, ""},
  };
  const std::string usage =
      "Check a Zanth-controlled mail domain before or after a rename\n"
      "Usage: mxkeep_domain_check [--json] <old_domain_name> <new_domain_name>\n"
      "       mxkeep_domain_check [--json] <domain_name>\n";
  for (const auto& c : cases) {
    const RunResult r = runCheck(c.args);
    EXPECT_EQ(c.status, r.exitCode()) << c.err;
    EXPECT_EQ(c.err, r.err);
    EXPECT_EQ(c.err + usage, r.out);
  }
  makeSampleMailLayer();
  const RunResult r = runCheck({"--json", "xa.example"});
  EXPECT_EQ(1, r.exitCode());
  EXPECT_EQ(
      "{\"check\": \"name\", \"name\": \"xa.example\", \"status\": 1, "
      "\"verdict\": \"the places disagree (found in: virtual_domains, virtual, vmailbox; missing from: mail_directory, auth_database, handlers)\", "
      "\"recovery\": \"mxkeep_domain_rename <old_domain_name> xa.example\", \"findings\": [\n"
      "  {\"place\": \"virtual_domains\", \"kind\": \"info\", \"text\": \"found: xa.example VIRTUAL\"},\n"
      "  {\"place\": \"virtual\", \"kind\": \"info\", \"text\": \"found: v@xa.example v@xa.example\"},\n"
      "  {\"place\": \"vmailbox\", \"kind\": \"info\", \"text\": \"found: v@xa.example xa.example/v/\"},\n"
      "  {\"place\": \"mail_directory\", \"kind\": \"info\", \"text\": \"not found: /var/qmail/mailnames/xa.example\"},\n"
      "  {\"place\": \"auth_database\", \"kind\": \"info\", \"text\": \"not found\"},\n"
      "  {\"place\": \"handlers\", \"kind\": \"info\", \"text\": \"not found\"}\n"
      "]}\n",
      r.out);
}

}  // namespace
