// Test fixture of the handler store tests: an empty store at its fixed
// paths (inside the test sandbox), no refresh program, the mail_log hook
// capturing messages, and helpers that add handlers and read the store back.
#ifndef MXKEEP_MAIL_HANDLERS_HANDLER_TEST_FIXTURE_H
#define MXKEEP_MAIL_HANDLERS_HANDLER_TEST_FIXTURE_H

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "common/mail_log.h"
#include "mail/handlers/handler_actions.h"
#include "mail/handlers/handler_store.h"
#include "testing/test_support.h"

namespace handler_testing {

const std::string kInfo = "/opt/orb/handlers/info/";

inline std::vector<std::string>& logged() {
  static std::vector<std::string> messages;
  return messages;
}

inline void captureLog(int, const char* format, ...) {
  char text[8192];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  logged().push_back(text);
}

class HandlerStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0,
              testing_support::shell("rm -rf /opt/orb/handlers /usr/lib/zanth-9.0/handlers-tmpfs "
                                     "/run/handlers-refresh.log && mkdir -p " +
                                     kInfo)
                  .exitCode());
    logged().clear();
    mail_log = captureLog;
  }
  void TearDown() override { mail_log = mail_log_default; }

  static std::set<std::string> names() {
    std::set<std::string> found;
    DIR* dir = opendir(kInfo.c_str());
    while (dirent* e = dir ? readdir(dir) : nullptr) found.insert(e->d_name);
    if (dir) closedir(dir);
    found.erase(".");
    found.erase("..");
    return found;
  }
  // Adds a handler; its name, or "" when handler_add failed.
  static std::string add(const char* type, const char* target, const char* tmpl = "spam",
                         const char* prio = "10", const char* context = "ctx",
                         const char* exe = "/bin/true", int final_action = 2) {
    std::set<std::string> before = names();
    if (handler_add(tmpl, type, target, exe, context, "smtp", prio, final_action) != 0) return "";
    for (const std::string& name : names()) {
      if (before.count(name) == 0) return name;
    }
    return "";
  }
  static std::string param(const std::string& name, const std::string& file) {
    return testing_support::readFile(kInfo + name + "/" + file);
  }
  // Whether name has an entry in the queue "/opt/orb/handlers/smtp/<queue>".
  static bool switchedOn(const std::string& queue, const std::string& name) {
    return testing_support::pathExists("/opt/orb/handlers/smtp/" + queue + "/" + name);
  }
};

}  // namespace handler_testing

#endif  // MXKEEP_MAIL_HANDLERS_HANDLER_TEST_FIXTURE_H
