// Rendering of the domain check's findings. JSON strings escape the quote,
// the backslash and control characters; other bytes pass as they are.
#include "cli/check_report.h"

#include <cstdio>

namespace zanth {
namespace cli {
namespace {

const char* kindName(FindingKind kind) {
  switch (kind) {
    case FindingKind::kChange:
      return "change";
    case FindingKind::kInfo:
      return "info";
    case FindingKind::kHazard:
      return "hazard";
    case FindingKind::kFailure:
      return "failure";
  }
  return "info";  // not reached: every enumerator is handled
}

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

}  // namespace

void printText(const CheckReport& report, std::ostream& out) {
  for (const Finding& f : report.findings) {
    out << f.place << ": " << kindName(f.kind) << ": ";
    if (f.kind != FindingKind::kChange) {
      out << f.text << '\n';
      continue;
    }
    if (!f.text.empty()) out << f.text << ": ";
    out << f.before << " => " << (f.after.empty() ? "(dropped)" : f.after) << '\n';
  }
  out << "result: " << report.verdict << '\n';
  if (!report.recovery.empty()) out << "recovery: " << report.recovery << '\n';
  out.flush();
}

void printJson(const CheckReport& report, std::ostream& out) {
  const bool rename = !report.newName.empty();
  out << "{\"check\": " << (rename ? "\"rename\"" : "\"name\"");
  if (rename)
    out << ", \"old\": " << jsonString(report.oldName) << ", \"new\": " << jsonString(report.newName);
  else
    out << ", \"name\": " << jsonString(report.oldName);
  out << ", \"status\": " << report.status << ", \"verdict\": " << jsonString(report.verdict);
  if (!report.recovery.empty()) out << ", \"recovery\": " << jsonString(report.recovery);
  out << ", \"findings\": [";
  const char* separator = "\n  ";
  for (const Finding& f : report.findings) {
    out << separator << "{\"place\": " << jsonString(f.place)
        << ", \"kind\": " << jsonString(kindName(f.kind)) << ", \"text\": " << jsonString(f.text);
    if (f.kind == FindingKind::kChange)
      out << ", \"before\": " << jsonString(f.before) << ", \"after\": " << jsonString(f.after);
    out << "}";
    separator = ",\n  ";
  }
  out << "\n]}\n";
  out.flush();
}

}  // namespace cli
}  // namespace zanth
