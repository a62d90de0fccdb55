// Checks of the test MariaDB server itself: the account admin reaches it
// at the client library's default socket with the password from the file,
// the query log shows that connection's commands, and a reset empties both.
#include "testing/mariadb_server.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/test_support.h"

namespace testing_support {
namespace {

class MariaDbServerTest : public ProductDbTest {};

TEST_F(MariaDbServerTest, AdminIsLoggedAndAResetEmptiesTablesAndLog) {
  ASSERT_EQ(std::string(kDbAdminPassword) + "\n", readFile("/etc/orb/.orb.shadow"));
  MYSQL* conn = mysql_init(nullptr);
  ASSERT_NE(nullptr,
            mysql_real_connect(conn, "localhost", "admin", kDbAdminPassword, "orb", 0, nullptr, 0))
      << mysql_error(conn);
  const std::string thread = std::to_string(mysql_thread_id(conn));
  const std::string sql = "INSERT INTO misc VALUES ('probe', 'x\ty')";
  EXPECT_EQ(0, mysql_query(conn, sql.c_str()));
  mysql_close(conn);

  EXPECT_TRUE(server().waitForQuit(std::stoll(thread)));
  std::vector<std::string> log;
  for (const LoggedCommand& c : server().adminLog())
    log.push_back(std::to_string(c.thread) + " " + c.command + " " + c.argument);
  EXPECT_EQ((std::vector<std::string>{thread + " Connect admin@localhost on orb using Socket",
                                      thread + " Query " + sql, thread + " Quit "}),
            log);
  EXPECT_EQ((std::vector<std::vector<std::string>>{{"probe", "x\ty"}}),
            server().query("SELECT * FROM orb.misc"));

  server().resetForTest();
  EXPECT_TRUE(server().query("SELECT * FROM orb.misc").empty());
  EXPECT_TRUE(server().adminLog().empty());
}

}  // namespace
}  // namespace testing_support
