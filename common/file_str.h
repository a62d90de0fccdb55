// Line-file editor: adds one line at the end of a small text file or
// removes every line equal to a text, for files that other processes read.
// This part holds the rule that decides which lines a text names.
#ifndef MXKEEP_COMMON_FILE_STR_H
#define MXKEEP_COMMON_FILE_STR_H

#include <string_view>

// file_str_line_matches - whether a line of the file (as read, with or
// without its line feed) is the line `text` names. One trailing line feed
// is ignored on either side; everything else must be equal byte for byte,
// so a text with a line feed inside never matches.
bool file_str_line_matches(std::string_view line, std::string_view text);

#endif  // MXKEEP_COMMON_FILE_STR_H
