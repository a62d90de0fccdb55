// The log the test fixtures capture: while one lives, what mail_log's
// default hook would print is kept instead, and read back as
// "priority:text" lines.
#ifndef MXKEEP_TESTING_LOG_CAPTURE_H
#define MXKEEP_TESTING_LOG_CAPTURE_H

#include <optional>
#include <string>
#include <vector>

#include "common/mail_log.h"

namespace testing_support {

// Started by a fixture's set-up (emplace), ended by its tear-down (reset).
inline std::optional<MailLogCapture> log_capture;

inline void startLogCapture() { log_capture.emplace(MailLogCapture::Keep::kPrinted); }

// captured_log - "priority:text" of each message kept, oldest first.
inline std::vector<std::string> captured_log() {
  std::vector<std::string> lines;
  if (log_capture)
    for (const MailLogMessage& m : log_capture->messages())
      lines.push_back(std::to_string(m.priority) + ":" + m.text);
  return lines;
}

}  // namespace testing_support

#endif  // MXKEEP_TESTING_LOG_CAPTURE_H
