// Test support for Postfix maps in the sandbox: a sample mail layer built and
// read back with the real postmap, and a stand-in postmap for injected faults.
#ifndef MXKEEP_TESTING_POSTFIX_MAPS_H
#define MXKEEP_TESTING_POSTFIX_MAPS_H

#include <string>
#include <vector>

namespace testing_support {

extern const char* const kVirtualDomainsMap;  // "hash:/var/spool/postfix/zanth/virtual_domains"
extern const char* const kVirtualMap;
extern const char* const kVmailboxMap;

// dumpMap - the records as sorted "key value" lines.
std::vector<std::string> dumpMap(const std::string& spec);

// The three maps (a.example, subdomain mail.a.example, look-alike xa.example,
// c.example), mail directories and users a.example/info (one message) and
// c.example/bob; sampleBefore/After: a map's sorted records around the rename.
void makeSampleMailLayer();
std::vector<std::string> sampleBefore(const std::string& map);
std::vector<std::string> sampleAfter(const std::string& map);

// Puts a shell script at /usr/sbin/postmap while it lives; "$REAL" in it is the real one.
class PostmapStandIn final {
 public:
  explicit PostmapStandIn(const std::string& script);
  ~PostmapStandIn();
  PostmapStandIn(const PostmapStandIn&) = delete;
  PostmapStandIn& operator=(const PostmapStandIn&) = delete;
};

}  // namespace testing_support

#endif  // MXKEEP_TESTING_POSTFIX_MAPS_H
