// Fuzz target of the control-pipe report reader. Any bytes a child may have
// left on the pipe must give back nothing or one of the exceptions the
// parent knows; and a failure reported by the child side's own writer must
// come back in the parent as the same error: same class, same what(), same
// error code.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

#include "common/errors.h"
#include "fuzz/fuzz_support.h"
#include "process/spawn.h"

namespace {

namespace zp = zanth::process;

std::string withoutNul(const std::string& text) {
  std::string out;
  for (char c : text)
    if (c != '\0') out += c;
  return out;
}

// What the child side writes for a failure, read back from a real pipe.
std::string sent(const std::string& type, const std::string& message, int code, bool withCode) {
  int fds[2];
  FUZZ_REQUIRE(::pipe(fds) == 0, "pipe");
  if (withCode)
    zp::reportChildError(fds[1], type.c_str(), message.c_str(), code);
  else
    zp::reportChildError(fds[1], type.c_str(), message.c_str());
  ::close(fds[1]);
  std::string data;
  char block[4096];
  for (ssize_t n; (n = ::read(fds[0], block, sizeof block)) > 0;) data.append(block, n);
  ::close(fds[0]);
  return data;
}

void roundTrip(FuzzedDataProvider& input) {
  const int kind = input.ConsumeIntegralInRange(0, 2);
  const std::string text = withoutNul(input.ConsumeRandomLengthString(2048));
  if (kind == 0) {
    int code = input.ConsumeIntegral<int>();
    if (code == 0) code = 1;
    const zanth::SystemError original(text, code);
    try {
      zp::raiseChildReport(sent("SystemError", original.what(), code, true));
    } catch (const zanth::SystemError& e) {
      FUZZ_REQUIRE(e.code() == code, original.what());
      FUZZ_REQUIRE(std::string(e.what()) == original.what(),
                   original.what() + std::string("\nback: ") + e.what());
      return;
    }
    fuzz::fail("SystemError comes back", original.what());
  }
  if (kind == 1) {
    try {
      zp::raiseChildReport(sent("std::runtime_error", text, 0, false));
    } catch (const std::runtime_error& e) {
      FUZZ_REQUIRE(std::string(e.what()) == (text.empty() ? "an error in child process" : text),
                   text);
      return;
    }
    fuzz::fail("std::runtime_error comes back", text);
  }
  // No type: exec succeeded, or only stray output came; nothing is raised.
  zp::raiseChildReport(sent("", text, 0, false));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  if (input.ConsumeBool()) {
    roundTrip(input);
    return 0;
  }
  try {
    zp::raiseChildReport(input.ConsumeRemainingBytesAsString());
  } catch (const std::exception&) {
    // Every kind the parent can raise derives from std::exception.
  }
  return 0;
}
