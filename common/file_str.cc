// Line-file editor. Pure functions; nothing here touches a file.
#include "common/file_str.h"

namespace {

std::string_view withoutLineFeed(std::string_view s) {
  if (!s.empty() && s.back() == '\n') s.remove_suffix(1);
  return s;
}

}  // namespace

bool file_str_line_matches(std::string_view line, std::string_view text) {
  return withoutLineFeed(line) == withoutLineFeed(text);
}
