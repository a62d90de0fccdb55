// mxkeep_domain_check run as a real binary in the sandbox: its prediction
// held against what the real rename then does, each hazard from a real
// layout, the report after interrupted renames and the recovery it names,
// and proof that it writes nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "testing/auth_testing.h"
#include "mail/auth/auth_users.h"
#include "mail/handlers/handler_actions.h"
#include "mail/handlers/handler_store.h"
#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;
using Lines = std::vector<std::string>;

const char* const kMaps[] = {kVirtualDomainsMap, kVirtualMap, kVmailboxMap};
const char* const kMapPlaces[] = {"virtual_domains", "virtual", "vmailbox"};
const std::string kAuthDb = "/var/spool/postfix/zanth/passwd.db";
const std::string kPluginDir = "/usr/lib/zanth-9.0/domain_rename/";
const std::string kKill = "kill -KILL $PPID";

RunResult runCheck(const std::vector<std::string>& args) {
  std::vector<std::string> argv{MXKEEP_CHECK_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv);
}

Lines lines(const std::string& text) {
  Lines result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

bool hasLinePrefix(const std::string& text, const std::string& prefix) {
  for (const std::string& line : lines(text))
    if (line.compare(0, prefix.size(), prefix) == 0) return true;
  return false;
}

// "before => after" of each change the check reports for place, as two lists.
void predicted(const std::string& report, const std::string& place, Lines* before, Lines* after) {
  const std::string head = place + ": change: ";
  for (const std::string& line : lines(report)) {
    if (line.compare(0, head.size(), head) != 0) continue;
    std::string change = line.substr(head.size());
    // Outside the maps a change carries its subject first: "subject: before => after".
    if (std::find(std::begin(kMapPlaces), std::end(kMapPlaces), place) == std::end(kMapPlaces))
      change = change.substr(change.find(": ") + 2);
    const std::string::size_type arrow = change.find(" => ");
    before->push_back(change.substr(0, arrow));
    after->push_back(change.substr(arrow + 4));
  }
  std::sort(before->begin(), before->end());
  std::sort(after->begin(), after->end());
}

Lines minus(Lines a, const Lines& b) {
  Lines result;
  for (const std::string& x : a)
    if (std::find(b.begin(), b.end(), x) == b.end()) result.push_back(x);
  return result;
}

// Every handler target in the store, sorted.
Lines handlerTargets() {
  return lines(shell("cat /opt/orb/handlers/info/*/recipient /opt/orb/handlers/info/*/recipient-domain "
                     "2>/dev/null | sort").out);
}

Lines authDomains() { return auth_testing::sqlRows(kAuthDb, "SELECT name FROM domains ORDER BY name"); }

// Names, kinds, sizes, modes, times and contents of everything the rename
// may touch (and the lock files), to show that the check wrote nothing.
std::string snapshot() {
  const std::string places = "/var/spool/postfix/zanth /var/qmail/mailnames /opt/orb/handlers /var/lock/files";
  return shell("find " + places + " -printf '%p %y %s %m %T@ %C@\\n' | sort; "
               "find " + places + " -type f -exec md5sum {} + | sort").out;
}

class DomainCheck : public ::testing::Test {
 protected:
  void SetUp() override {
    makeSampleMailLayer();
    writeFile("/usr/lib/zanth-9.0/handlers-tmpfs", "#!/bin/sh\n", 0755);
    ASSERT_EQ(0, handler_add("spam", "recipient", "info@a.example", "/bin/true", "ctx", "smtp", "10", kHandlerSwitchOn));
    ASSERT_EQ(0, handler_add("virus", "recipient-domain", "a.example", "/bin/true", "ctx", "smtp", "20", kHandlerSwitchOn));
    ASSERT_EQ(0, handler_add("spam", "recipient", "v@xa.example", "/bin/true", "ctx", "smtp", "10", kHandlerSwitchOn));
  }
  // A fresh sandbox layout with the sample, for each case of a table.
  void fresh() {
    ASSERT_EQ(0, shell(sourcePath("testing/sandbox.sh") + " --reset-layout").exitCode());
    SetUp();
  }
  static void install(const std::string& module) {
    ASSERT_EQ(0, shell("install -m 0644 " + buildPath(module) + " " + kPluginDir).exitCode());
  }
};

// The places in the order the report names them, each run counted once.
Lines placeOrder(const std::string& report) {
  Lines order;
  for (const std::string& line : lines(report)) {
    const std::string place = line.substr(0, line.find(':'));
    if (order.empty() || order.back() != place) order.push_back(place);
  }
  return order;
}

Lines sorted(Lines l) {
  std::sort(l.begin(), l.end());
  return l;
}

TEST_F(DomainCheck, ReportOfTheTypicalRenameLetterForLetter) {
  const std::string info = "/opt/orb/handlers/info/";
  const std::string spam = shell("cd " + info + " && grep -lx info@a.example */recipient | cut -d/ -f1").out;
  const std::string virus = shell("cd " + info + " && ls -d 20-virus-*").out;
  const RunResult r = runCheck({"a.example", "b.example"});
  EXPECT_EQ(3, r.exitCode());
  EXPECT_EQ("", r.err);
  // Records come in the map's dump order; everything else in a fixed order.
  EXPECT_EQ(sorted(lines(
                "virtual_domains: change: a.example VIRTUAL => b.example VIRTUAL\n"
                "virtual: change: @a.example catch@a.example => @b.example catch@b.example\n"
                "virtual: change: fwd@c.example info@a.example, ext@a.example.org => "
                "fwd@c.example info@b.example, ext@a.example.org\n"
                "virtual: change: info@a.example info@a.example => info@b.example info@b.example\n"
                "virtual: change: sales@a.example info@a.example, bob@c.example => "
                "sales@b.example info@b.example, bob@c.example\n"
                "vmailbox: change: catch@a.example a.example/catch/ => catch@b.example b.example/catch/\n"
                "vmailbox: change: info@a.example a.example/info/ => info@b.example b.example/info/\n"
                "vmailbox: change: odd@c.example a.example.org/odd/ => odd@c.example b.example.org/odd/\n"
                "mail_directory: change: move: /var/qmail/mailnames/a.example => "
                "/var/qmail/mailnames/b.example\n"
                "auth_database: change: /var/spool/postfix/zanth/passwd.db: "
                "domain a.example (1 user) => domain b.example (1 user)\n"
                "plugins: info: none in /usr/lib/zanth-9.0/domain_rename\n"
                "handlers: change: " + spam.substr(0, spam.size() - 1) + ": info@a.example => info@b.example\n"
                "handlers: change: " + virus.substr(0, virus.size() - 1) + ": a.example => b.example\n"
                "handlers_refresh: info: runs after each moved handler: "
                "/usr/lib/zanth-9.0/handlers-tmpfs refresh\n"
                "vmailbox: hazard: the path rule rewrites a value outside the domain's directory: "
                "odd@c.example a.example.org/odd/\n"
                "result: the rename would succeed, with 1 hazard\n")),
            sorted(lines(r.out)));
  EXPECT_EQ((Lines{"virtual_domains", "virtual", "vmailbox", "mail_directory", "auth_database", "plugins",
                   "handlers", "handlers_refresh", "vmailbox", "result"}),
            placeOrder(r.out));
}

struct Scenario {
  const char* name;
  const char* oldName;
  const char* newName;
  const char* setup;  // shell command on the sample layer
  const char* plugin;  // module to install, or null
  int checkStatus;
  bool renameFails;
};

TEST_F(DomainCheck, PredictionIsWhatTheRenameDoesAndWritesNothing) {
  const Scenario scenarios[] = {
      {"typical", "a.example", "b.example", "", nullptr, 3, false},
      {"idn", "a.example", "b\xc3\xbc" "cher.example", "", nullptr, 3, false},
      {"in no map", "d.example", "e.example", "mkdir /var/qmail/mailnames/d.example", nullptr, 0, false},
      {"no mail directory", "a.example", "b.example", "rm -r /var/qmail/mailnames/a.example", nullptr, 1, true},
      {"broken map", "a.example", "b.example", "rm /var/spool/postfix/zanth/vmailbox.db", nullptr, 1, true},
      {"taken name", "a.example", "b.example", nullptr, nullptr, 1, true},
      {"failing plugin", "a.example", "b.example", "", "test_plugins/failing.so", 3, true},
      {"damaged handler", "a.example", "b.example", "mkdir /opt/orb/handlers/info/10-broken-Ab3xYz", nullptr, 1, true},
      {"look-alike", "xa.example", "y.example", "mkdir /var/qmail/mailnames/xa.example", nullptr, 0, false},
  };
  for (const Scenario& s : scenarios) {
    SCOPED_TRACE(s.name);
    fresh();
    if (s.setup == nullptr) {
      ASSERT_EQ(0, mail_auth_add_user("old", "b.example", "secret", 0));
    } else {
      ASSERT_EQ(0, shell(s.setup).exitCode());
    }
    if (s.plugin != nullptr) install(s.plugin);
    Lines maps[3];
    for (int i = 0; i < 3; ++i) maps[i] = pathExists(std::string(kMaps[i]).substr(5) + ".db") ? dumpMap(kMaps[i]) : Lines();
    const Lines targets = handlerTargets();
    const Lines domains = authDomains();

    const std::string written = snapshot();
    const RunResult check = runCheck({s.oldName, s.newName});
    runCheck({"--json", s.oldName});
    EXPECT_EQ(written, snapshot());
    EXPECT_EQ(s.checkStatus, check.exitCode()) << check.out << check.err;
    EXPECT_EQ(s.checkStatus == 1, check.out.find(": failure: ") != std::string::npos) << check.out;

    const RunResult rename = runTool({s.oldName, s.newName});
    EXPECT_EQ(s.renameFails ? 1 : 0, rename.exitCode()) << rename.err;
    if (s.checkStatus == 1) continue;  // the failure was predicted and the rename undid its maps

    // What the rename changed is exactly what the check predicted, place by place.
    for (int i = 0; i < 3; ++i) {
      Lines before, after;
      predicted(check.out, kMapPlaces[i], &before, &after);
      const Lines now = dumpMap(kMaps[i]);
      EXPECT_EQ(before, minus(maps[i], now)) << kMapPlaces[i];
      EXPECT_EQ(after, minus(now, maps[i])) << kMapPlaces[i];
    }
    Lines before, after;
    predicted(check.out, "mail_directory", &before, &after);
    ASSERT_EQ(1u, after.size());
    EXPECT_EQ(!s.renameFails, pathExists(after[0]));
    if (s.renameFails) {
      EXPECT_TRUE(hasLinePrefix(check.out, "plugins: info: runs " + kPluginDir + "failing.so"));
      continue;
    }
    before.clear(), after.clear();
    predicted(check.out, "handlers", &before, &after);
    EXPECT_EQ(before, minus(targets, handlerTargets()));
    EXPECT_EQ(after, minus(handlerTargets(), targets));
    before.clear(), after.clear();
    predicted(check.out, "auth_database", &before, &after);
    for (std::string& row : before) row = row.substr(7, row.find(' ', 7) - 7);  // "domain <name> (..."
    for (std::string& row : after) row = row.substr(7, row.find(' ', 7) - 7);
    EXPECT_EQ(before, minus(domains, authDomains()));
    EXPECT_EQ(after, minus(authDomains(), domains));
  }
}

struct Hazard {
  std::string setup;  // shell command on the sample layer
  const char* sql;    // run on the authentication database, or null
  int status;
  std::string line;   // the finding it must produce (its beginning)
};

TEST_F(DomainCheck, EachHazardFromARealLayout) {
  const std::string vmailbox = "/var/spool/postfix/zanth/vmailbox";
  const std::string lock = "/var/lock/files/$(printf %s " + vmailbox + " | md5sum | cut -c1-32)";
  const Hazard hazards[] = {
      {"", nullptr, 3,
       "vmailbox: hazard: the path rule rewrites a value outside the domain's directory: "
       "odd@c.example a.example.org/odd/"},
      {"postmap -s hash:/var/spool/postfix/zanth/virtual > /run/v && echo 'x@b.example x@b.example' >> /run/v "
       "&& cp /run/v /var/spool/postfix/zanth/virtual && postmap hash:/var/spool/postfix/zanth/virtual "
       "&& rm /var/spool/postfix/zanth/virtual",
       nullptr, 3, "virtual: hazard: record of the new name already present, an undo would rename it too: x@b.example x@b.example"},
      {"", "DELETE FROM domains WHERE name='a.example'; INSERT INTO domains(name) VALUES('b.example')", 3,
       "auth_database: hazard: new name already present: domain b.example (0 users)"},
      {"", "INSERT INTO domains(name) VALUES('b.example')", 1,
       "auth_database: failure: new name already present, the rename fails here: domain b.example (0 users)"},
      {"mkdir /var/qmail/mailnames/b.example", nullptr, 3,
       "mail_directory: hazard: target exists and is empty, the move replaces it: /var/qmail/mailnames/b.example"},
      {"mkdir -p /var/qmail/mailnames/b.example/x", nullptr, 1,
       "mail_directory: failure: target exists, the move fails: /var/qmail/mailnames/b.example"},
      {"rm /opt/orb/handlers/info/20-virus-*/context", nullptr, 1, "handlers: failure: handler 20-virus-"},
      {"rm -r " + kPluginDir, nullptr, 1,
       "plugins: failure: plugin directory missing, the rename fails here: /usr/lib/zanth-9.0/domain_rename"},
      {"echo 'edited by hand' > " + vmailbox, nullptr, 3,
       "vmailbox: hazard: text source left beside the map, the rename overwrites and removes it: " + vmailbox},
      {"mkfifo /run/held /run/release && (flock -x " + lock + " sh -c 'echo > /run/held; read x < /run/release' >/dev/null 2>&1 &) "
       "&& read x < /run/held",
       nullptr, 3, "vmailbox: hazard: map lock held by another process, the rename waits for it"},
  };
  for (const Hazard& h : hazards) {
    SCOPED_TRACE(h.setup);
    fresh();
    ASSERT_EQ(0, shell(h.setup).exitCode());
    if (h.sql != nullptr) auth_testing::sqlRows(kAuthDb, h.sql);
    const RunResult r = runCheck({"a.example", "b.example"});
    if (pathExists("/run/release")) shell("echo > /run/release");
    EXPECT_EQ(h.status, r.exitCode()) << r.out;
    EXPECT_TRUE(hasLinePrefix(r.out, h.line)) << r.out;
  }
}

struct Interruption {
  const char* name;
  std::string postmap;  // stand-in script that kills the tool, or ""
  const char* plugin;   // failing module, or null
  const char* checked;  // the name checked afterwards
  Lines report;         // the check's report then, sorted
};

TEST_F(DomainCheck, AfterAnInterruptedRenameNamesTheRecoveryThatCompletesIt) {
  const std::string is = "[ \"$1\" = -s ] && [ \"$2\" = ";
  const Interruption interruptions[] = {
      {"killed dumping virtual_domains", is + kVirtualDomainsMap + " ] && " + kKill, nullptr, "a.example",
       {"auth_database: info: found: domain a.example (1 user)",
        "handlers: info: found: 10-spam", "handlers: info: found: 20-virus",
        "mail_directory: info: found: /var/qmail/mailnames/a.example",
        "recovery: mxkeep_domain_rename a.example <new_domain_name>",
        "result: the places disagree (found in: virtual_domains, virtual, vmailbox, mail_directory, "
        "auth_database, handlers; missing from: none)",
        "virtual: info: found: @a.example catch@a.example", "virtual_domains: failure: text source left beside "
        "the map by an interrupted rewrite: /var/spool/postfix/zanth/virtual_domains"}},
      {"killed dumping vmailbox", is + kVmailboxMap + " ] && " + kKill, nullptr, "b.example",
       {"auth_database: info: not found", "handlers: info: not found",
        "mail_directory: info: not found: /var/qmail/mailnames/b.example",
        "recovery: mxkeep_domain_rename a.example b.example",
        "result: the places disagree (found in: virtual_domains, virtual; missing from: vmailbox, "
        "mail_directory, auth_database, handlers)",
        "virtual: info: found: @b.example catch@b.example", "virtual_domains: info: found: b.example VIRTUAL",
        "vmailbox: failure: text source left beside the map by an interrupted rewrite: "
        "/var/spool/postfix/zanth/vmailbox", "vmailbox: info: not found"}},
      {"failing plugin", "", "test_plugins/failing.so", "b.example",
       {"auth_database: info: found: domain b.example (1 user)", "handlers: info: not found",
        "mail_directory: info: not found: /var/qmail/mailnames/b.example",
        "recovery: mxkeep_domain_rename a.example b.example",
        "result: the places disagree (found in: virtual_domains, virtual, vmailbox, auth_database; "
        "missing from: mail_directory, handlers)",
        "virtual: info: found: @b.example catch@b.example", "virtual_domains: info: found: b.example VIRTUAL",
        "vmailbox: info: found: catch@b.example b.example/catch/"}},
  };
  for (const Interruption& run : interruptions) {
    SCOPED_TRACE(run.name);
    fresh();
    if (run.plugin != nullptr) install(run.plugin);
    {
      std::unique_ptr<PostmapStandIn> standIn(
          run.postmap.empty() ? nullptr : new PostmapStandIn(run.postmap + "\nexec \"$REAL\" \"$@\""));
      EXPECT_NE(0, runTool({"a.example", "b.example"}).status);
    }
    const RunResult r = runCheck({run.checked});
    EXPECT_EQ(1, r.exitCode()) << r.out;
    // Every expected line is in the report (records of other addresses may follow).
    for (const std::string& line : run.report) EXPECT_TRUE(hasLinePrefix(r.out, line)) << line << "\n" << r.out;

    // The cause removed, the command it names, with the other name filled in, completes the rename.
    if (run.plugin != nullptr) {
      ASSERT_EQ(0, shell("rm " + kPluginDir + "*").exitCode());
    }
    EXPECT_EQ(0, runTool({"a.example", "b.example"}).exitCode());
    const RunResult after = runCheck({"b.example"});
    EXPECT_EQ(0, after.exitCode()) << after.out;
    EXPECT_TRUE(hasLinePrefix(after.out, "result: every place agrees")) << after.out;
    const RunResult old = runCheck({"a.example"});
    EXPECT_EQ(0, old.exitCode()) << old.out;
    EXPECT_TRUE(hasLinePrefix(old.out, "result: the name is in no place")) << old.out;
  }
}

TEST(DomainCheckCommand, UsageErrorsAndJson) {
  const struct {
    std::vector<std::string> args;
    int status;
    std::string err;
  } cases[] = {
      {{}, 2, "Not enough arguments\n"},
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
      "{\"check\": \"name\", \"name\": \"xa.example\", \"status\": 1, \"verdict\": \"the places disagree "
      "(found in: virtual_domains, virtual, vmailbox; missing from: mail_directory, auth_database, handlers)\", "
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
