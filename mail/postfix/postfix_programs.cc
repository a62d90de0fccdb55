// Postfix's programs as children, through the process layer's Pipe.
#include "mail/postfix/postfix_programs.h"

#include <sys/wait.h>

#include <boost/bind/bind.hpp>

#include "mail/postfix/errors.h"

namespace zanth {
namespace mail {
namespace postfix {
namespace {

constexpr const char* kUnknownError = "unknown error";

void appendBlock(std::string& text, const std::vector<char>& block) {
  text.append(block.begin(), block.end());
}

// run - the raw wait status; output to consumer, or into *out, or dropped.
int run(const std::vector<std::string>& argv, const process::BlockConsumer* consumer,
        std::string* out, std::string* errors, const std::string& input = std::string()) {
  process::ProcessSpec child;
  child.program = argv.front();
  child.arguments = argv;
  child.stderrSetting = process::kStreamPipe;
  child.stderrConsumer = boost::bind(&appendBlock, boost::ref(*errors), boost::placeholders::_1);
  process::Pipe pipe;
  if (!input.empty()) {
    pipe.setInput(process::kStreamPipe, [&input, done = false](std::vector<char>& block) mutable {
      if (done) return false;
      block.assign(input.begin(), input.end());
      done = true;
      return true;
    });
  }
  if (consumer != nullptr)
    pipe.setOutput(process::kStreamPipe, *consumer);
  else if (out != nullptr)
    pipe.setOutput(process::kStreamPipe,
                   boost::bind(&appendBlock, boost::ref(*out), boost::placeholders::_1));
  else
    pipe.setOutput(process::kStreamNull);
  pipe.addProcess(child);
  return pipe.run();
}

}  // namespace

std::string runPostfixProgram(const std::vector<std::string>& argv,
                              const process::BlockConsumer* consumer) {
  std::string out, errors;
  const int status = run(argv, consumer, &out, &errors);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw PostfixConfigurationError(errors.empty() ? kUnknownError : errors);
  return out;
}

int postfixProgramStatus(const std::vector<std::string>& argv, std::string* out,
                         const std::string& input) {
  std::string errors;
  const int status = run(argv, nullptr, out, &errors, input);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace postfix
}  // namespace mail
}  // namespace zanth
