// Fuzz target of the delivery-file line editor's matching: which lines of a
// delivery file a text to remove names. The input is a file's content and
// a text. Checks, on every line of the file, that a text ending in a line
// feed names the same lines as without it, that a line names itself with
// or without its line feed, and that a text with a line feed inside it
// names no line at all, and that no line differing from the text is named.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>

#include "process/file_str.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string text = input.ConsumeRandomLengthString(256);
  const std::string file = input.ConsumeRemainingBytesAsString();
  const bool endsInLineFeed = !text.empty() && text.back() == '\n';
  const bool lineFeedInside = text.find('\n') < (endsInLineFeed ? text.size() - 1 : text.size());

  for (size_t start = 0; start < file.size();) {
    size_t end = file.find('\n', start);
    end = end == std::string::npos ? file.size() : end + 1;
    const std::string line = file.substr(start, end - start);  // as read, with its line feed
    const std::string bare = line.back() == '\n' ? line.substr(0, line.size() - 1) : line;
    start = end;

    const bool named = file_str_line_matches(line, text);
    if (!endsInLineFeed) FUZZ_REQUIRE(named == file_str_line_matches(line, text + "\n"), line);
    if (lineFeedInside) FUZZ_REQUIRE(!named, line + "|" + text);
    FUZZ_REQUIRE(file_str_line_matches(line, bare) && file_str_line_matches(line, bare + "\n"), line);
    // Never a line that differs from the text: removing it would lose mail.
    if (named)
      FUZZ_REQUIRE(bare == (endsInLineFeed ? text.substr(0, text.size() - 1) : text),
                   line + "|" + text);
  }
  return 0;
}
