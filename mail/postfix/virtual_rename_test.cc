// The command's undo of the Postfix step, run in-process while a later failure
// unwinds: the maps' own guards see that failure too, so only the directory goes back.
#include "mail/postfix/virtual_rename.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace {

using namespace testing_support;
namespace pf = zanth::mail::postfix;

TEST(PostfixRenameGuard, UndoMovesDirectoryBackButLeavesMapsForward) {
  const std::string oldName = "a.example", newName = "b.example";
  makeSampleMailLayer();
  pf::renameDomain(oldName, newName);
  EXPECT_EQ("later step", thrownWhat<std::runtime_error>([&] {
              pf::PostfixRenameGuard guard(oldName, newName);
              throw std::runtime_error("later step");
            }));
  for (const char* map : {kVirtualDomainsMap, kVirtualMap, kVmailboxMap}) EXPECT_EQ(sampleAfter(map), dumpMap(map));
  EXPECT_TRUE(pathExists("/var/qmail/mailnames/a.example/info/Maildir/new/1.eml"));
  EXPECT_FALSE(pathExists("/var/qmail/mailnames/b.example"));
}

}  // namespace
