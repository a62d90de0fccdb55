// Test support for the command-line tests, which run the real rename and check
// commands in the sandbox: the fixed places a rename touches, a fixture with
// the sample layer and handlers, plugin installation and one check of every
// place afterwards. Failures are gtest failures of the calling test.
#ifndef MXKEEP_TESTING_RENAME_TESTING_H
#define MXKEEP_TESTING_RENAME_TESTING_H

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <future>
#include <sstream>
#include <string>
#include <vector>

#include "mail/handlers/handler_actions.h"
#include "testing/auth_testing.h"
#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace rename_testing {

using Records = std::vector<std::string>;

const char* const kMaps[] = {testing_support::kVirtualDomainsMap, testing_support::kVirtualMap,
                             testing_support::kVmailboxMap};
const std::string kSpool = "/var/spool/postfix/zanth";
const std::string kAuthDb = kSpool + "/passwd.db";
const std::string kMailNames = "/var/qmail/mailnames/";
const std::string kPluginDir = "/usr/lib/zanth-9.0/domain_rename/";
const std::string kRefresh = "/usr/lib/zanth-9.0/handlers-tmpfs";
const std::string kFatal = "Fatal error: ";
const std::string kServicesFailed =
    kFatal + "zanth::mail::postfix::PostfixError(unable to rename some of services)\n";
const std::string kHandlersFailed =
    kFatal + "zanth::mail::postfix::PostfixError(Unable to rename domain handlers)\n";

// The line of a rename ended by the termination signal `name` ("SIGTERM").
inline std::string terminated(const char* name) {
  return kFatal + "zanth::process::TerminationSignal(terminated by " + name + ")\n";
}

inline bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The rename of a.example to b.example started in the background by a
// shell that tells its process id on the fifo /run/ready, then becomes the
// tool; *pid is the tool's once the shell said it. Stand-ins and plugins
// tell the test on /run/ready too, and may wait on the fifo /run/go.
inline std::future<testing_support::RunResult> renameInBackground(pid_t* pid) {
  using testing_support::shell;
  EXPECT_EQ(0, shell("rm -f /run/ready /run/go && mkfifo /run/ready /run/go").exitCode());
  std::future<testing_support::RunResult> tool = std::async(std::launch::async, [] {
    return shell("echo $$ > /run/ready && exec " + testing_support::toolPath() +
                 " a.example b.example");
  });
  *pid = std::stoi(testing_support::readFifo("/run/ready"));
  return tool;
}

// What the tool says when it cannot put a place back after a failure.
const std::string kCritical =
    "CRITICAL ERROR: Unable to properly restore Postfix Virtual Domains Database used by Zanth.\n"
    "Mail system may be not usable at the moment and it cannot be repaired automatically.\n"
    "Constact Quillon support to resolve this issue.\n";
// The users of the sample layer once the domain of info is renamed or not.
const Records kUsersRenamed = {"b.example info", "c.example bob"};
const Records kUsersKept = {"a.example info", "c.example bob"};

// Installs a module built under the build directory as a rename plugin.
inline void installPlugin(const std::string& module) {
  using testing_support::buildPath;
  ASSERT_EQ(0, testing_support::shell("install -m 0644 " + buildPath(module) + " " + kPluginDir)
                   .exitCode());
}

// "domain user" for every user of the authentication database, sorted.
inline Records authUsers() {
  return auth_testing::sqlRows(kAuthDb,
                               "SELECT d.name || ' ' || u.name FROM users u, domains d "
                               "WHERE u.dom_id = d.id ORDER BY d.name, u.name");
}

// Every map holds records(map) and only databases lie beside the maps, the
// mail directory is under dir (a.example or b.example) alone, and the
// authentication database holds users.
inline void expectPlaces(Records (*records)(const std::string&), const std::string& dir,
                         const Records& users) {
  namespace fs = boost::filesystem;
  for (const char* map : kMaps) EXPECT_EQ(records(map), testing_support::dumpMap(map)) << map;
  for (fs::directory_iterator it(kSpool), end; it != end; ++it)
    EXPECT_EQ(".db", it->path().extension()) << "left beside the maps: " << it->path();
  const std::string other = dir == "a.example" ? "b.example" : "a.example";
  EXPECT_TRUE(testing_support::pathExists(kMailNames + dir + "/info/Maildir/new/1.eml")) << dir;
  EXPECT_FALSE(testing_support::pathExists(kMailNames + other)) << other;
  EXPECT_EQ(users, authUsers());
}

// The lines of text, without their ends.
inline Records lines(const std::string& text) {
  Records result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

// The target of every handler in the store, sorted, as its files say.
inline Records handlerTargets() {
  return lines(
      testing_support::shell("cat /opt/orb/handlers/info/*/recipient "
                             "/opt/orb/handlers/info/*/recipient-domain 2>/dev/null | sort")
          .out);
}

// The sample mail layer with handlers of a.example (one for info@, one for
// the whole domain) and one of the look-alike xa.example, which no rename of
// a.example may touch, and a refresh program that logs its arguments to
// /run/handlers-refresh.log; fresh() goes back to it in a fresh sandbox
// layout for each case of a table.
class SampleLayout : public ::testing::Test {
 protected:
  void SetUp() override {
    testing_support::makeSampleMailLayer();
    testing_support::writeFile(kRefresh, "#!/bin/sh\necho \"$@\" >> /run/handlers-refresh.log\n",
                               0755);
    const char* const handlers[][4] = {{"spam", "recipient", "info@a.example", "10"},
                                       {"virus", "recipient-domain", "a.example", "20"},
                                       {"spam", "recipient", "info@xa.example", "10"}};
    for (const auto& h : handlers)
      ASSERT_EQ(0,
                handler_add(h[0], h[1], h[2], "/bin/true", "ctx", "smtp", h[3], kHandlerSwitchOn));
  }
  void fresh() {
    using testing_support::shell;
    ASSERT_EQ(0, shell(testing_support::sourcePath("testing/sandbox.sh") + " --reset-layout")
                     .exitCode());
    SetUp();
  }
};

}  // namespace rename_testing

#endif  // MXKEEP_TESTING_RENAME_TESTING_H
