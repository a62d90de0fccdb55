// Test support for Postfix maps in the sandbox: real hash maps built and
// read back with the real postmap, a sample mail layer, and a stand-in
// postmap for the failures that cannot be provoked otherwise.
#ifndef MXKEEP_TESTING_POSTFIX_MAPS_H
#define MXKEEP_TESTING_POSTFIX_MAPS_H

#include <string>
#include <vector>

namespace testing_support {

extern const char* const kVirtualDomainsMap;  // "hash:/var/spool/postfix/zanth/virtual_domains"
extern const char* const kVirtualMap;
extern const char* const kVmailboxMap;

std::string mapFile(const std::string& spec);  // the path part of "type:path"

// makeMap - builds spec's database from "key value" lines with postmap and
// removes the text source, as the tool leaves a map.
void makeMap(const std::string& spec, const std::vector<std::string>& lines);
// dumpMap - the records as sorted "key value" lines; throws on failure.
std::vector<std::string> dumpMap(const std::string& spec);
// queryMap - the value of key, "" when not found.
std::string queryMap(const std::string& spec, const std::string& key);

// The three maps with records of a.example, its subdomain mail.a.example,
// the look-alike xa.example and c.example, and mail directories of
// a.example (info, with one message) and c.example, and the Postfix
// authentication database with info@a.example and bob@c.example.
// sampleBefore/After:
// the sorted records before and after renaming a.example to b.example.
void makeSampleMailLayer();
std::vector<std::string> sampleBefore(const std::string& map);
std::vector<std::string> sampleAfter(const std::string& map);

// Puts a shell script at /usr/sbin/postmap while it lives; "$REAL" in the
// script is the real postmap, so calls can be passed through.
class PostmapStandIn {
 public:
  explicit PostmapStandIn(const std::string& script);
  ~PostmapStandIn();
  PostmapStandIn(const PostmapStandIn&) = delete;
  PostmapStandIn& operator=(const PostmapStandIn&) = delete;
};

}  // namespace testing_support

#endif  // MXKEEP_TESTING_POSTFIX_MAPS_H
