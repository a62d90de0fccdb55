// The Postfix step of the real binary in the sandbox with the real postmap: a
// rename, and real faults with what each leaves behind and the exact output.
#include <gtest/gtest.h>

#include <boost/filesystem/operations.hpp>
#include <memory>

#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;
using Records = std::vector<std::string>;

struct Scenario {
  const char* setup;    // shell command run on the sample layer
  std::string postmap;  // stand-in script before passing on to the real one; "" for none
  std::string output;   // the same on both streams; "" for the rename that succeeds
  Records (*records)(const std::string& map);  // expected afterwards; "no database" when missing
};

TEST(PostfixStep, RenameOrFaultLeavesMapsAndDirectoryAsPromised) {
  const std::string error = "Fatal error: zanth::mail::postfix::PostfixConfigurationError(", is = "[ \"$1\" = ";
  const std::string root = "/var/qmail/mailnames/", message = "/info/Maildir/new/1.eml", renameFailed =
      "Fatal error: boost::filesystem::filesystem_error(boost::filesystem::rename: No such file or directory: "
      "\"/var/qmail/mailnames/a.example\", \"/var/qmail/mailnames/b.example\")\n";
  const Scenario scenarios[] = {
      {"", "", "", sampleAfter},
      // Another process holds the virtual_domains lock and puts the directory back before it lets go.
      {"rm -f /run/held && mv /var/qmail/mailnames/a.example /run && (flock /var/lock/files/$(printf %s "
       "/var/spool/postfix/zanth/virtual_domains | md5sum | cut -c1-32) -c 'touch /run/held; sleep 1; "
       "mv /run/a.example /var/qmail/mailnames' >/dev/null 2>&1 &) && until [ -e /run/held ]; do sleep 0.1; done",
       "", "", sampleAfter},
      {"rm /var/spool/postfix/zanth/vmailbox.db", "",
       error + "postmap: fatal: open database /var/spool/postfix/zanth/vmailbox.db: No such file or directory\n)\n",
       [](const std::string& map) { return map == kVmailboxMap ? Records{"no database"} : sampleBefore(map); }},
      {"rm -r /var/qmail/mailnames/a.example", "", renameFailed, sampleBefore},
      {"", is + kVirtualMap + " ] && { echo 'postmap: fatal: refused' >&2; exit 1; }",
       error + "postmap: fatal: refused\n)\n", sampleBefore},
      // A silent failure: the warnings of the dumps before it are not its text.
      {"", is + "-s ] && { \"$REAL\" \"$@\"; r=$?; echo 'postmap: warning: x' >&2; exit $r; }\n" + is + kVirtualMap +
               " ] && exit 3",
       error + "unknown error)\n", sampleBefore},
      // Each virtual_domains rebuild after the first is refused: its undo fails.
      {"rm -rf /var/qmail/mailnames/a.example /run/rebuilt",
       is + kVirtualDomainsMap + " ] && { [ -e /run/rebuilt ] && exit 1; touch /run/rebuilt; }",
       "CRITICAL ERROR: Unable to properly restore Postfix Virtual Domains Database used by Zanth.\n"
       "Mail system may be not usable at the moment and it cannot be repaired automatically.\n"
       "Constact Quillon support to resolve this issue.\n" + renameFailed,
       [](const std::string& map) { return map == kVirtualDomainsMap ? sampleAfter(map) : sampleBefore(map); }},
  };
  for (const Scenario& run : scenarios) {
    SCOPED_TRACE(run.setup + run.output);
    makeSampleMailLayer();
    ASSERT_EQ(0, shell(run.setup).exitCode());
    const bool hadMessage = pathExists(root + "a.example" + message), renamed = run.output.empty();
    std::unique_ptr<PostmapStandIn> standIn(
        run.postmap.empty() ? nullptr : new PostmapStandIn(run.postmap + "\nexec \"$REAL\" \"$@\""));
    const RunResult r = runTool({"a.example", "b.example"});
    EXPECT_EQ(renamed ? 0 : 1, r.exitCode());
    EXPECT_EQ(run.output, r.err);
    EXPECT_EQ(run.output, r.out);
    for (const std::string map : {kVirtualDomainsMap, kVirtualMap, kVmailboxMap})
      EXPECT_EQ(run.records(map), pathExists(map.substr(5) + ".db") ? dumpMap(map) : Records{"no database"});
    if (renamed) { EXPECT_EQ("b.example/info/", queryMap(kVmailboxMap, "info@b.example")); }
    for (boost::filesystem::directory_iterator it("/var/spool/postfix/zanth"), end; it != end; ++it)
      EXPECT_EQ(".db", it->path().extension()) << "text source left: " << it->path();
    EXPECT_EQ(hadMessage && !renamed, pathExists(root + "a.example" + message));
    EXPECT_EQ(renamed, pathExists(root + "b.example" + message));
  }
}

}  // namespace
