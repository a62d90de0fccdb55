// Test support for Postfix maps: real postmap runs, the sample mail layer
// and the stand-in postmap.
#include "testing/postfix_maps.h"

#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>

#include "mail/auth/auth_db.h"
#include "mail/auth/auth_users.h"
#include "testing/test_support.h"

namespace testing_support {

const char* const kVirtualDomainsMap = "hash:/var/spool/postfix/zanth/virtual_domains";
const char* const kVirtualMap = "hash:/var/spool/postfix/zanth/virtual";
const char* const kVmailboxMap = "hash:/var/spool/postfix/zanth/vmailbox";

namespace {

constexpr const char* kPostmap = "/usr/sbin/postmap";
constexpr const char* kRealPostmap = "/usr/libexec/mxkeep-test-real-postmap";

RunResult postmap(const std::vector<std::string>& args) {
  std::vector<std::string> argv{kPostmap};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv);
}

// Records before and after renaming a.example to b.example, sorted.
struct Sample {
  std::vector<std::string> before, after;
};

const std::map<std::string, Sample>& samples() {
  static const std::map<std::string, Sample> maps = {
      {kVirtualDomainsMap,
       {{"a.example VIRTUAL", "c.example VIRTUAL", "mail.a.example VIRTUAL", "xa.example VIRTUAL"},
        {"b.example VIRTUAL", "c.example VIRTUAL", "mail.a.example VIRTUAL", "xa.example VIRTUAL"}}},
      {kVirtualMap,
       {{"@a.example catch@a.example", "fwd@c.example info@a.example, ext@a.example.org",
         "info@a.example info@a.example", "sales@a.example info@a.example, bob@c.example",
         "u@mail.a.example u@mail.a.example", "v@xa.example v@xa.example"},
        {"@b.example catch@b.example", "fwd@c.example info@b.example, ext@a.example.org",
         "info@b.example info@b.example", "sales@b.example info@b.example, bob@c.example",
         "u@mail.a.example u@mail.a.example", "v@xa.example v@xa.example"}}},
      {kVmailboxMap,
       {{"bob@c.example c.example/bob/", "catch@a.example a.example/catch/", "info@a.example a.example/info/",
         "odd@c.example a.example.org/odd/", "u@mail.a.example mail.a.example/u/", "v@xa.example xa.example/v/"},
        {"bob@c.example c.example/bob/", "catch@b.example b.example/catch/", "info@b.example b.example/info/",
         "odd@c.example b.example.org/odd/", "u@mail.a.example mail.a.example/u/", "v@xa.example xa.example/v/"}}},
  };
  return maps;
}

}  // namespace

std::string mapFile(const std::string& spec) { return spec.substr(spec.find(':') + 1); }

void makeMap(const std::string& spec, const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  writeFile(mapFile(spec), text);
  const RunResult r = postmap({spec});
  ::unlink(mapFile(spec).c_str());
  if (r.exitCode() != 0) throw std::runtime_error("postmap " + spec + ": " + r.err);
}

std::vector<std::string> dumpMap(const std::string& spec) {
  const RunResult r = postmap({"-s", spec});
  if (r.exitCode() != 0) throw std::runtime_error("postmap -s " + spec + ": " + r.err);
  std::istringstream in(r.out);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line.replace(line.find('\t'), 1, " "));
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::string queryMap(const std::string& spec, const std::string& key) {
  const RunResult r = postmap({"-q", key, spec});
  if (r.exitCode() > 1) throw std::runtime_error("postmap -q " + spec + ": " + r.err);
  return r.out.substr(0, r.out.find('\n'));
}

void makeSampleMailLayer() {
  for (const auto& map : samples()) makeMap(map.first, map.second.before);
  const RunResult r = shell(
      "cd /var/qmail/mailnames && rm -rf ./* && mkdir -p a.example/info/Maildir/new c.example/bob && "
      "echo 'Subject: kept' > a.example/info/Maildir/new/1.eml && chown -R popuser: a.example c.example");
  if (r.exitCode() != 0) throw std::runtime_error("sample mail directories: " + r.err);
  if (mail_auth_init(kMailStylePostfix) != 0 ||
      mail_auth_add_user("info", "a.example", "secret", 0) != 0 ||
      mail_auth_add_user("bob", "c.example", "secret", 0) != 0)
    throw std::runtime_error("sample authentication database");
}

std::vector<std::string> sampleBefore(const std::string& map) { return samples().at(map).before; }
std::vector<std::string> sampleAfter(const std::string& map) { return samples().at(map).after; }

PostmapStandIn::PostmapStandIn(const std::string& script) {
  if (::rename(kPostmap, kRealPostmap) != 0) throw std::runtime_error("cannot move postmap aside");
  writeFile(kPostmap, std::string("#!/bin/sh\nREAL=") + kRealPostmap + "\n" + script + "\n", 0755);
}

PostmapStandIn::~PostmapStandIn() { ::rename(kRealPostmap, kPostmap); }

}  // namespace testing_support
