// Map rewrite pieces the end-to-end tests of the command cannot see: the
// self-removing text source, the wait for the map's lock, and a dump whose
// last record has no line feed (only a stand-in postmap can produce one).
#include "mail/postfix/database/map_update.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace {

namespace db = zanth::mail::postfix::database;
using namespace testing_support;
const std::string kMap = "hash:/var/spool/postfix/zanth/testmap";
const std::string kOld = "a.example", kNew = "b.example";
const db::ElementsFilter<db::ReplaceDomainPart> kAliases{db::ReplaceDomainPart(kOld, kNew, false)};

TEST(AutocleanOFStream, FileIsGoneAfterwardsAndErrnoKept) {
  TempDir dir;
  for (const std::string& name : {dir / "text", dir / "missing/text"}) {
    {
      zanth::AutocleanOFStream out(name);
      out << "line" << std::endl;
      EXPECT_EQ(name == dir / "text", pathExists(name));
      errno = EDOM;
    }
    EXPECT_EQ(EDOM, errno);
    EXPECT_FALSE(pathExists(name));
  }
}

TEST(MapUpdate, WaitsForTheMapLockHeldElsewhere) {
  makeMap(kMap, {"info@a.example x"});
  TempDir dir;
  const std::string log = dir / "log";
  RunResult md5 = shell("printf %s " + mapFile(kMap) + " | md5sum");
  ASSERT_EQ(0, shell("(flock /var/lock/files/" + md5.out.substr(0, 32) + " sh -c 'echo held >> " + log +
                     "; sleep 1; echo released >> " + log + "') >/dev/null 2>&1 &").exitCode());
  for (int i = 0; i < 1000 && !pathExists(log); ++i) ::usleep(10000);
  db::update(kMap, kAliases);
  shell("echo updated >> " + log);
  EXPECT_EQ("held\nreleased\nupdated\n", readFile(log));
  EXPECT_EQ("x", queryMap(kMap, "info@b.example"));
}

TEST(MapUpdate, UnterminatedLastRecordIsFilteredToo) {
  makeMap(kMap, {"old x"});
  {
    PostmapStandIn standIn("[ \"$1\" = -s ] && { printf 'c.example x@a.example\\ninfo@a.example  y'; exit 0; }\n"
                           "exec \"$REAL\" \"$@\"");
    db::update(kMap, kAliases);
  }
  EXPECT_EQ((std::vector<std::string>{"c.example x@b.example", "info@b.example y"}), dumpMap(kMap));
}

}  // namespace
