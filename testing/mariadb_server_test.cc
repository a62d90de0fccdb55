// Checks of the test MariaDB server itself: the account admin reaches it
// at the client library's default socket with the password from the file,
// and the query log shows that connection's statements and its end.
#include "testing/mariadb_server.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/test_support.h"

namespace testing_support {
namespace {

class MariaDbServerTest : public ProductDbTest {};

TEST_F(MariaDbServerTest, AdminConnectsAtDefaultSocketAndIsLogged) {
  std::string line = readFile("/etc/orb/.orb.shadow");
  ASSERT_EQ(std::string(kDbAdminPassword) + "\n", line);
  server().exec("INSERT INTO orb.misc VALUES ('probe', 'x\ty')");

  MYSQL* conn = mysql_init(nullptr);
  ASSERT_NE(nullptr, conn);
  ASSERT_NE(nullptr, mysql_real_connect(conn, "localhost", "admin", kDbAdminPassword, "orb",
                                        0, nullptr, 0))
      << mysql_error(conn);
  long long thread = mysql_thread_id(conn);
  const std::string sql = "SELECT val FROM misc WHERE param='probe'";
  ASSERT_EQ(0, mysql_query(conn, sql.c_str()));
  MYSQL_RES* res = mysql_store_result(conn);
  ASSERT_NE(nullptr, res);
  MYSQL_ROW row = mysql_fetch_row(res);
  ASSERT_NE(nullptr, row);
  EXPECT_STREQ("x\ty", row[0]);
  mysql_free_result(res);
  mysql_close(conn);

  EXPECT_TRUE(server().waitForQuit(thread));
  std::vector<LoggedCommand> log = server().adminLog();
  ASSERT_EQ(3u, log.size());
  EXPECT_EQ("Connect", log[0].command);
  EXPECT_EQ(sql, log[1].argument);
  EXPECT_EQ("Quit", log[2].command);
  for (const LoggedCommand& c : log) EXPECT_EQ(thread, c.thread);
}

TEST_F(MariaDbServerTest, EachTestStartsWithEmptyTablesAndLog) {
  EXPECT_TRUE(server().query("SELECT * FROM orb.misc").empty());
  EXPECT_TRUE(server().adminLog().empty());
}

}  // namespace
}  // namespace testing_support
