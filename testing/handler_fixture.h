// Test fixture of the handler tests: an empty store at its fixed paths in the
// sandbox, no refresh program, mail_log captured, helpers to add and read.
#ifndef MXKEEP_TESTING_HANDLER_FIXTURE_H
#define MXKEEP_TESTING_HANDLER_FIXTURE_H

#include <gtest/gtest.h>

#include "common/syscall.h"
#include "mail/handlers/handler_actions.h"
#include "mail/handlers/handler_store.h"
#include "testing/log_capture.h"
#include "testing/test_support.h"

namespace handler_testing {

using testing_support::captured_log;
using Strings = std::vector<std::string>;
const std::string kInfo = "/opt/orb/handlers/info/";
const std::string kRefreshLog = "/run/handlers-refresh.log";

// Takes ownership of a string the store returns; "<null>" for none.
inline std::string str(char* owned) {
  zanth::UniqueCString holder(owned);
  return holder ? holder.get() : "<null>";
}

class HandlerStore : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, testing_support::shell("rm -rf /opt/orb/handlers " + kRefreshLog + " " +
                                        kHandlersRefreshProgram + " && mkdir -p " + kInfo)
                     .exitCode());
    testing_support::startLogCapture();
  }
  void TearDown() override { testing_support::log_capture.reset(); }

  // Adds a switched-on handler with context "ctx" on hook smtp; its name.
  static std::string add(const char* type, const char* target, const char* tmpl = "spam",
                         const char* priority = "10", const char* program = "/bin/true") {
    EXPECT_EQ(0,
              handler_add(tmpl, type, target, program, "ctx", "smtp", priority, kHandlerSwitchOn));
    return str(handler_find(tmpl, type, target, "smtp"));
  }
  // The named parameter files of a handler, one after the other.
  static std::string params(const std::string& name, std::initializer_list<const char*> files) {
    std::string text;
    for (const char* file : files) text += testing_support::readFile(kInfo + name + "/" + file);
    return text;
  }
  // Whether name has an entry in the queue "/opt/orb/handlers/smtp/<queue>".
  static bool switchedOn(const std::string& queue, const std::string& name) {
    return testing_support::pathExists("/opt/orb/handlers/smtp/" + queue + "/" + name);
  }
};

}  // namespace handler_testing

#endif  // MXKEEP_TESTING_HANDLER_FIXTURE_H
