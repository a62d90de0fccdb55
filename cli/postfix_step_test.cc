// The Postfix step of the real binary in the sandbox with the real postmap: a
// rename, and real faults with what each leaves behind and the exact output.
// It lives in cli/, not beside mail/postfix/, because it runs the command:
// what a fault leaves is the command's end state, undo and output included.
#include <gtest/gtest.h>

#include <memory>

#include "testing/rename_testing.h"

namespace {

using namespace testing_support;
using namespace rename_testing;

struct Scenario {
  const char* name;
  std::string setup;    // shell command run on the sample layer
  std::string postmap;  // stand-in script before passing on to the real one; "" for none
  std::string output;   // the same on both streams; "" for the rename that succeeds
  Records (*records)(const std::string& map);  // expected afterwards; "no database" when missing
};

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

class PostfixStep : public testing::TestWithParam<Scenario> {};

const std::string kError = "Fatal error: zanth::mail::postfix::PostfixConfigurationError(";
const std::string kIs = "[ \"$1\" = ", kMessage = "/info/Maildir/new/1.eml";
const std::string kRenameFailed =
    "Fatal error: boost::filesystem::filesystem_error(boost::filesystem::rename: No such file or "
    "directory: \"/var/qmail/mailnames/a.example\", \"/var/qmail/mailnames/b.example\")\n";

const Scenario kScenarios[] = {
    {"Renames", "", "", "", sampleAfter},
    {"MissingMapDatabase", "rm " + kSpool + "/vmailbox.db", "",
     kError + "postmap: fatal: open database " + kSpool +
         "/vmailbox.db: No such file or directory\n)\n",
     [](const std::string& map) {
       return map == kVmailboxMap ? Records{"no database"} : sampleBefore(map);
     }},
    {"MissingMailDirectory", "rm -r " + kMailNames + "a.example", "", kRenameFailed, sampleBefore},
    {"PostmapRefusesAMap", "",
     kIs + kVirtualMap + " ] && { echo 'postmap: fatal: refused' >&2; exit 1; }",
     kError + "postmap: fatal: refused\n)\n", sampleBefore},
    // A silent failure: the warnings of the dumps before it are not its text.
    {"PostmapFailsSilently", "",
     kIs + "-s ] && { \"$REAL\" \"$@\"; r=$?; echo 'postmap: warning: x' >&2; exit $r; }\n" + kIs +
         kVirtualMap + " ] && exit 3",
     kError + "unknown error)\n", sampleBefore},
    // Each virtual_domains rebuild after the first is refused: its undo fails.
    {"UndoOfTheDomainMapFails", "rm -rf " + kMailNames + "a.example /run/rebuilt",
     kIs + kVirtualDomainsMap + " ] && { [ -e /run/rebuilt ] && exit 1; touch /run/rebuilt; }",
     kCritical + kRenameFailed,
     [](const std::string& map) {
       return map == kVirtualDomainsMap ? sampleAfter(map) : sampleBefore(map);
     }},
};

TEST_P(PostfixStep, LeavesMapsAndDirectoryAsPromised) {
  const Scenario& run = GetParam();
  makeSampleMailLayer();
  ASSERT_EQ(0, shell(run.setup).exitCode());
  const bool hadMessage = pathExists(kMailNames + "a.example" + kMessage);
  const bool renamed = run.output.empty();
  std::unique_ptr<PostmapStandIn> standIn(
      run.postmap.empty() ? nullptr : new PostmapStandIn(run.postmap + "\nexec \"$REAL\" \"$@\""));
  const RunResult r = runTool({"a.example", "b.example"});
  EXPECT_EQ(renamed ? 0 : 1, r.exitCode());
  EXPECT_EQ(run.output, r.err);
  EXPECT_EQ(run.output, r.out);
  for (const std::string map : kMaps)
    EXPECT_EQ(run.records(map),
              pathExists(map.substr(5) + ".db") ? dumpMap(map) : Records{"no database"});
  for (boost::filesystem::directory_iterator it(kSpool), end; it != end; ++it)
    EXPECT_EQ(".db", it->path().extension()) << "text source left: " << it->path();
  EXPECT_EQ(hadMessage && !renamed, pathExists(kMailNames + "a.example" + kMessage));
  EXPECT_EQ(renamed, pathExists(kMailNames + "b.example" + kMessage));
}

INSTANTIATE_TEST_SUITE_P(Scenarios, PostfixStep, testing::ValuesIn(kScenarios),
                         [](const testing::TestParamInfo<Scenario>& info) {
                           return info.param.name;
                         });

}  // namespace
