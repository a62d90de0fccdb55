// The real binary in the sandbox with careless and hostile input: names
// that are no host names, the same domain spelled another way, a new name
// another domain already holds, and waits that only a signal can end (a
// database locked by a real sqlite3, a plugin that never returns, a fifo
// as a handler's parameter). Each refusal must leave every place as it
// was; each wait must end.
#include <gtest/gtest.h>
#include <signal.h>

#include <future>
#include <string>
#include <vector>

#include "testing/rename_testing.h"

namespace {

using namespace testing_support;
using namespace rename_testing;

std::string refusal(const std::string& text) {
  return kFatal + "zanth::RenameRefusal(" + text + ")\n";
}

// Either command, ended by timeout(1) should it hang.
RunResult runBounded(const std::string& program, const std::vector<std::string>& args) {
  std::vector<std::string> argv{"/usr/bin/timeout", "-k", "5", "30", program};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv);
}

RunResult runCheck(const std::vector<std::string>& args) {
  return runBounded(MXKEEP_CHECK_PATH, args);
}

// Every place a rename of a.example touches, as one text.
std::string places() {
  std::string state;
  for (const char* map : kMaps)
    for (const std::string& record : dumpMap(map)) state += record + "\n";
  state += shell("cd " + kMailNames + " && find . | sort").out;
  for (const std::string& row : auth_testing::sqlRows(kAuthDb, "SELECT name FROM domains"))
    state += row + "\n";
  for (const std::string& user : authUsers()) state += user + "\n";
  for (const std::string& target : handlerTargets()) state += target + "\n";
  return state;
}

class RenameRefusals : public SampleLayout {};

TEST_F(RenameRefusals, NamesThatAreNoHostNamesAreRefusedBeforeAnyPlace) {
  const std::string before = places();
  const struct {
    const char* oldName;
    std::string newName;
    std::string quoted;
    const char* fault;
  } cases[] = {
      // A line feed would make a second map record of the rest.
      {"a.example", "b.example\n@other.example\tattacker@evil.example",
       "b.example\\n@other.example\\tattacker@evil.example",
       "it has a character other than a letter, a digit, a hyphen or a dot"},
      {"a.example", "b.example other.example", "b.example other.example",
       "it has a character other than a letter, a digit, a hyphen or a dot"},
      {"a.example", "b.example\r", "b.example\\r",
       "it has a character other than a letter, a digit, a hyphen or a dot"},
      {"a.example", "b.\x01xample", "b.\\x01xample",
       "it has a character other than a letter, a digit, a hyphen or a dot"},
      {"a.example", "b,example", "b,example",
       "it has a character other than a letter, a digit, a hyphen or a dot"},
      {"a.example", "info@b.example", "info@b.example",
       "it has a character other than a letter, a digit, a hyphen or a dot"},
      {"a.example", "c.example/info2", "c.example/info2",
       "it has a character other than a letter, a digit, a hyphen or a dot"},
      {"a.example", "b.example.", "b.example.", "it ends with a dot"},
      {"a.example", "b-.example", "b-.example", "it has a label that begins or ends with a hyphen"},
      {"a.example/x", "b.example", "a.example/x",
       "it has a character other than a letter, a digit, a hyphen or a dot"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.quoted);
    const RunResult r = runTool({c.oldName, c.newName});
    const std::string role = c.newName == "b.example" ? "old" : "new";
    const std::string expected =
        refusal(role + " domain name '" + c.quoted + "' is not a host name: " + c.fault);
    EXPECT_EQ(1, r.exitCode());
    EXPECT_EQ(expected, r.err);
    EXPECT_EQ(expected, r.out);
    EXPECT_EQ(before, places());
  }
}

TEST_F(RenameRefusals, NamesAreWrittenInLowerCaseAndTheSameNameChangesNothing) {
  ASSERT_EQ(0, handler_add("spam", "recipient", "info@xn--bcher-kva.example", "/bin/true", "ctx",
                           "smtp", "10", kHandlerSwitchOn));
  const std::string before = places();
  const char* const sameNames[][2] = {{"a.example", "a.example"},
                                      {"a.example", "A.EXAMPLE"},
                                      {"bücher.example", "xn--bcher-kva.example"}};
  for (const auto& names : sameNames) {
    SCOPED_TRACE(names[1]);
    const RunResult r = runTool({names[0], names[1]});
    EXPECT_EQ(0, r.exitCode()) << r.err;
    EXPECT_EQ("", r.err + r.out);
    EXPECT_EQ(before, places());
    const RunResult check = runCheck({names[0], names[1]});
    EXPECT_EQ(0, check.exitCode()) << check.out;
    EXPECT_EQ("result: the names are the same, the rename changes nothing\n", check.out);
  }

  // Keys, values, directory, database and handlers all take one spelling.
  const RunResult r = runTool({"A.Example", "B.Example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  expectPlaces(sampleAfter, "b.example", kUsersRenamed);
  EXPECT_EQ((Records{"b.example", "info@b.example", "info@xa.example",
                     "info@xn--bcher-kva.example"}),
            handlerTargets());
}

TEST_F(RenameRefusals, ANameAnotherDomainHoldsIsRefusedBeforeAnyPlace) {
  const std::string domains = kSpool + "/virtual_domains";
  const std::string addKey = "postmap -s hash:" + domains +
                             " > /run/v && echo 'b.example VIRTUAL' " + ">> /run/v && cp /run/v " +
                             domains + " && postmap hash:" + domains + " && rm " + domains;
  const std::string addDirectory = "mkdir -p " + kMailNames + "b.example/info/Maildir";
  const std::string addRow =
      "sqlite3 " + kAuthDb + " \"INSERT INTO domains(name) VALUES('b.example')\"";
  const struct {
    std::string setup;
    bool handler;
    const char* places;
  } cases[] = {
      {addKey, false, "virtual_domains"},
      {addDirectory, false, "mail_directory"},
      {addRow, false, "auth_database"},
      {"true", true, "handlers"},
      {addKey + " && " + addDirectory + " && " + addRow, true,
       "virtual_domains, mail_directory, auth_database, handlers"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.places);
    fresh();
    ASSERT_EQ(0, shell(c.setup).exitCode());
    if (c.handler) {
      ASSERT_EQ(0, handler_add("virus", "recipient-domain", "b.example", "/bin/true", "ctx", "smtp",
                               "20", kHandlerSwitchOn));
    }
    const std::string before = places();
    const RunResult r = runTool({"a.example", "b.example"});
    const std::string expected =
        refusal(std::string("both a.example and b.example are present in ") + c.places +
                ": renaming one onto the other would merge two domains");
    EXPECT_EQ(1, r.exitCode());
    EXPECT_EQ(expected, r.err);
    EXPECT_EQ(expected, r.out);
    EXPECT_EQ(before, places());
    // The check refuses it too, in the same places.
    const RunResult check = runCheck({"a.example", "b.example"});
    EXPECT_EQ(1, check.exitCode());
    EXPECT_NE(std::string::npos,
              check.out.find(": failure: both names present, the rename refuses before changing "
                             "anything: "))
        << check.out;
  }
}

TEST_F(RenameRefusals, ASignalEndsAWaitForALockedDatabase) {
  // A real sqlite3 takes the database once the maps are renamed (at the
  // dump of the last map), so the rename waits in its database step.
  const std::string locker =
      "{ (echo 'BEGIN EXCLUSIVE;'; echo '.shell touch /run/locked'; "
      "cat /run/hold) | sqlite3 " +
      kAuthDb + "; } </dev/null >/dev/null 2>&1 &";
  ASSERT_EQ(0, shell("mkfifo /run/hold").exitCode());
  pid_t tool;
  std::future<RunResult> rename;
  {
    const PostmapStandIn postmap(
        "[ \"$1\" = -s ] && [ \"$2\" = " + std::string(kVmailboxMap) + " ] && { " + locker +
        " while [ ! -e /run/locked ]; do sleep 0.01; done; }\nexec \"$REAL\" \"$@\"");
    rename = renameInBackground(&tool);
    // Waiting: the database open while another holds it.
    const std::string fds = "/proc/" + std::to_string(tool) + "/fd";
    waitUntil("the tool waits for the database", [&] {
      return shell("[ -e /run/locked ] && ls -l " + fds + " | grep -q passwd.db").exitCode() == 0;
    });
  }
  ASSERT_EQ(0, ::kill(tool, SIGTERM));
  const RunResult r = rename.get();
  EXPECT_EQ(1, r.exitCode()) << r.err;
  EXPECT_TRUE(endsWith(r.out, terminated("SIGTERM"))) << r.out;

  // The check reports the busy database instead of waiting for it.
  const RunResult check = runCheck({"a.example", "b.example"});
  writeFifo("/run/hold", "");
  EXPECT_EQ(1, check.exitCode()) << check.out;
  EXPECT_NE(std::string::npos, check.out.find("auth_database: failure: cannot read ")) << check.out;
  // As any failure of the database step: the maps stay renamed, the mail
  // directory is moved back.
  expectPlaces(sampleAfter, "a.example", kUsersKept);
}

TEST_F(RenameRefusals, ASignalEndsAPluginThatNeverReturns) {
  installPlugin("test_plugins/stalling.so");
  pid_t tool;
  std::future<RunResult> rename = renameInBackground(&tool);
  EXPECT_EQ("stalling\n", readFifo("/run/ready"));
  ASSERT_EQ(0, ::kill(tool, SIGTERM));
  const RunResult r = rename.get();
  EXPECT_EQ(1, r.exitCode()) << r.err;
  EXPECT_EQ(terminated("SIGTERM"), r.out);
  // Ended with SIGKILL after its grace, and reaped.
  EXPECT_NE(std::string::npos, r.err.find("child killed by signal: 9\n")) << r.err;
  expectPlaces(sampleAfter, "a.example", kUsersRenamed);
}

TEST_F(RenameRefusals, ParametersThatAreNoRegularFilesFailTheirHandler) {
  const std::string context = "$(ls -d /opt/orb/handlers/info/20-virus-*)/context";
  // A link is not followed: nothing of its target reaches the store.
  ASSERT_EQ(0, shell("ln -sf /etc/shadow " + context).exitCode());
  RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(1, r.exitCode()) << r.err;
  EXPECT_TRUE(endsWith(r.out, kHandlersFailed)) << r.out;
  EXPECT_EQ("", shell("grep -rl '^root:' /opt/orb/handlers").out);

  // A fifo is not waited on, by the rename or by the check.
  fresh();
  ASSERT_EQ(0, shell("rm " + context + " && mkfifo " + context).exitCode());
  r = runBounded(toolPath(), {"a.example", "b.example"});
  EXPECT_EQ(1, r.exitCode()) << r.err;
  const RunResult check = runCheck({"b.example"});
  EXPECT_EQ(1, check.exitCode()) << check.out;

  // The rename stopped with handlers of both names: the same rename again,
  // once the parameter is a file, completes it.
  ASSERT_EQ(0, shell("rm " + context + " && echo ctx > " + context).exitCode());
  r = runTool({"a.example", "b.example"});
  EXPECT_EQ(0, r.exitCode()) << r.err;
  expectPlaces(sampleAfter, "b.example", kUsersRenamed);
  EXPECT_EQ((Records{"b.example", "info@b.example", "info@xa.example"}), handlerTargets());
}

TEST_F(RenameRefusals, JsonEscapesBytesThatAreNotUtf8) {
  // Invalid: a stray byte, an overlong form, a surrogate, beyond U+10FFFF;
  // valid: a two-byte letter. A JSON parser reads them back byte for byte.
  // Postfix takes such keys only with SMTPUTF8 off, as older setups have it.
  const std::string virt = kSpool + "/virtual";
  const std::string odd = "x\\377\\300\\257\\355\\240\\200\\364\\220\\200\\200\\303\\274";
  ASSERT_EQ(0, shell("postmap -s hash:" + virt + " > /run/v && printf '" + odd +
                     "@a.example info@a.example\\n' >> /run/v && cp /run/v " + virt +
                     " && postconf -e smtputf8_enable=no && postmap hash:" + virt +
                     " && postconf -X smtputf8_enable && rm " + virt)
                   .exitCode());
  const RunResult r = shell(std::string(MXKEEP_CHECK_PATH) +
                            " --json a.example b.example | python3 -c '"
                            "import json, sys\n"
                            "report = json.load(sys.stdin)\n"
                            "for f in report[\"findings\"]:\n"
                            "    if f[\"place\"] == \"virtual\" and \"before\" in f:\n"
                            "        print(f[\"before\"].encode(\"utf-8\", \"surrogateescape\"))\n"
                            "'");
  EXPECT_EQ(0, r.exitCode()) << r.err;
  EXPECT_NE(std::string::npos,
            r.out.find("b'x\\xff\\xc0\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\\xc3\\xbc@a.example "
                       "info@a.example'"))
      << r.out;
}

}  // namespace
