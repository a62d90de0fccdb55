// Test support for Postfix maps: real postmap runs, the sample mail layer and
// the stand-in postmap. Failures throw std::runtime_error.
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

// The standard output of postmap with args; throws unless it exits with 0.
std::string postmap(std::vector<std::string> args) {
  args.insert(args.begin(), kPostmap);
  const RunResult r = runProgram(args);
  if (r.exitCode() != 0) throw std::runtime_error("postmap: " + r.err);
  return r.out;
}

// Each map's records before and after renaming a.example to b.example, sorted.
const std::map<std::string, std::pair<std::vector<std::string>, std::vector<std::string>>>
    kSamples = {
        {kVirtualDomainsMap,
         {{"a.example VIRTUAL", "c.example VIRTUAL", "mail.a.example VIRTUAL",
           "xa.example VIRTUAL"},
          {"b.example VIRTUAL", "c.example VIRTUAL", "mail.a.example VIRTUAL",
           "xa.example VIRTUAL"}}},
        {kVirtualMap,
         {{"@a.example catch@a.example", "fwd@c.example info@a.example, ext@a.example.org",
           "info@a.example info@a.example", "sales@a.example info@a.example, bob@c.example",
           "u@mail.a.example u@mail.a.example", "v@xa.example v@xa.example"},
          {"@b.example catch@b.example", "fwd@c.example info@b.example, ext@a.example.org",
           "info@b.example info@b.example", "sales@b.example info@b.example, bob@c.example",
           "u@mail.a.example u@mail.a.example", "v@xa.example v@xa.example"}}},
        {kVmailboxMap,
         {{"bob@c.example c.example/bob/", "catch@a.example a.example/catch/",
           "info@a.example a.example/info/", "odd@c.example a.example.org/odd/",
           "u@mail.a.example mail.a.example/u/", "v@xa.example xa.example/v/"},
          {"bob@c.example c.example/bob/", "catch@b.example b.example/catch/",
           "info@b.example b.example/info/", "odd@c.example b.example.org/odd/",
           "u@mail.a.example mail.a.example/u/", "v@xa.example xa.example/v/"}}},
};

}  // namespace

std::vector<std::string> dumpMap(const std::string& spec) {
  std::istringstream in(postmap({"-s", spec}));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);)
    lines.push_back(line.replace(line.find('\t'), 1, " "));
  std::sort(lines.begin(), lines.end());
  return lines;
}

void makeSampleMailLayer() {
  for (const auto& map : kSamples) {  // the text source removed, as the tool leaves a map
    std::string text, source = map.first.substr(map.first.find(':') + 1);
    for (const std::string& line : map.second.first) text += line + "\n";
    writeFile(source, text);
    postmap({map.first});
    ::unlink(source.c_str());
  }
  const RunResult r = shell(
      "cd /var/qmail/mailnames && rm -rf ./* && mkdir -p a.example/info/Maildir/new c.example/bob "
      "&& "
      "echo 'Subject: kept' > a.example/info/Maildir/new/1.eml && chown -R popuser: a.example "
      "c.example");
  if (r.exitCode() != 0) throw std::runtime_error("sample mail directories: " + r.err);
  if (mail_auth_init(kMailStylePostfix) != 0 ||
      mail_auth_add_user("info", "a.example", "secret", 0) != 0 ||
      mail_auth_add_user("bob", "c.example", "secret", 0) != 0)
    throw std::runtime_error("sample authentication database");
}

std::vector<std::string> sampleBefore(const std::string& map) { return kSamples.at(map).first; }
std::vector<std::string> sampleAfter(const std::string& map) { return kSamples.at(map).second; }

PostmapStandIn::PostmapStandIn(const std::string& script) {
  if (::rename(kPostmap, kRealPostmap) != 0) throw std::runtime_error("cannot move postmap aside");
  writeFile(kPostmap, std::string("#!/bin/sh\nREAL=") + kRealPostmap + "\n" + script + "\n", 0755);
}

PostmapStandIn::~PostmapStandIn() { ::rename(kRealPostmap, kPostmap); }

}  // namespace testing_support
