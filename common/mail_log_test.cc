// The capture of the procedural code's log: what each kind keeps, how take()
// joins, and that an inner capture hands the hook back to the outer one.
#include "common/mail_log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

TEST(MailLogCapture, KeepsJoinsAndNests) {
  const mail_log_fn before = mail_log;
  {
    MailLogCapture outer;
    mail_log(LOG_DEBUG, "a %d\n", 1);  // below the default threshold: kept by kAll
    {
      MailLogCapture printed(MailLogCapture::Keep::kPrinted);
      mail_log(LOG_DEBUG, "dropped");
      errno = EACCES;
      mail_log(LOG_ERR, "%s", "kept");
      EXPECT_EQ(EACCES, errno) << "a caller logs first and reports errno afterwards";
      {
        MailLogCapture nothing(MailLogCapture::Keep::kNothing);
        mail_log(LOG_ERR, "gone");
        EXPECT_TRUE(nothing.messages().empty());
      }
      mail_log(LOG_ERR, "\n");  // empty once its line end is dropped
      ASSERT_EQ(2u, printed.messages().size());
      EXPECT_EQ(LOG_ERR, printed.messages()[0].priority);
      EXPECT_EQ("kept", printed.take());
      EXPECT_TRUE(printed.messages().empty());
    }
    mail_log(LOG_WARNING, "b");
    EXPECT_EQ("a 1; b", outer.take());
  }
  EXPECT_EQ(before, mail_log);
}

}  // namespace
