// Rendering of the domain check's findings. JSON strings escape the quote,
// the backslash, control characters and bytes that are not UTF-8.
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

// utf8Length - the length of the well-formed UTF-8 sequence at text[at]
// (no overlong form, no surrogate, nothing above U+10FFFF), 0 for none.
size_t utf8Length(const std::string& text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const unsigned char lead = byte(0);
  size_t length;
  unsigned char low = 0x80, high = 0xbf;  // the second byte's range
  if (lead < 0x80) return 1;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;
    if (lead == 0xed) high = 0x9f;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;
    if (lead == 0xf4) high = 0x8f;
  } else {
    return 0;
  }
  if (at + length > text.size() || byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i)
    if (byte(i) < 0x80 || byte(i) > 0xbf) return 0;
  return length;
}

// jsonString - text as a JSON string. A byte that is not part of UTF-8
// (a map may hold any bytes) becomes \udcXX, the lone low surrogate that
// stands for byte XX, so a parser takes it and a reader can tell it apart.
std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (size_t at = 0; at < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[at]);
    const size_t length = utf8Length(text, at);
    char escaped[8];
    if (length == 0) {
      std::snprintf(escaped, sizeof escaped, "\\u%04x", 0xdc00 + c);
      out += escaped;
      ++at;
      continue;
    }
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out.append(text, at, length);
    }
    at += length;
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
