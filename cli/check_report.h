// Findings of the domain check and their two renderings: plain text, one
// line per finding, for admins, and one JSON object for panels. Pure
// formatting; nothing here looks at the system or fails.
#ifndef MXKEEP_CLI_CHECK_REPORT_H
#define MXKEEP_CLI_CHECK_REPORT_H

#include <ostream>
#include <string>
#include <vector>

namespace zanth {
namespace cli {

// Exit statuses of the check.
constexpr int kCheckClean = 0;       // would succeed without hazard / consistent
constexpr int kCheckFails = 1;       // would fail / places disagree
constexpr int kCheckUsage = 2;       // bad usage, or the check itself failed
constexpr int kCheckHazardous = 3;   // would succeed, with hazards

// What one finding says about a place.
enum class FindingKind {
  kChange,   // the rename changes this (before, after)
  kInfo,     // how the place is, or what runs there
  kHazard,   // the rename succeeds, but this is worth seeing first
  kFailure,  // the rename fails here / the place disagrees with the others
};

struct Finding {
  std::string place;  // "virtual_domains", "mail_directory", "handlers", ...
  FindingKind kind;
  std::string text;
  std::string before;  // changes only
  std::string after;
};

struct CheckReport {
  std::string oldName;  // ASCII; the one name of a where-is check
  std::string newName;  // empty for a where-is check
  std::vector<Finding> findings;  // plan first, then hazards and failures
  int status = kCheckClean;
  std::string verdict;
  std::string recovery;  // command that brings every place under one name
};

// printText - "place: kind: text" per finding ("before => after" for a
// change), then "result: " and, when given, "recovery: ".
void printText(const CheckReport& report, std::ostream& out);

// printJson - the report as one JSON object (schema in the manual page).
void printJson(const CheckReport& report, std::ostream& out);

}  // namespace cli
}  // namespace zanth

#endif  // MXKEEP_CLI_CHECK_REPORT_H
