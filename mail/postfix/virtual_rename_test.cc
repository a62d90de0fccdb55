// The command's undo of the Postfix step, run in-process during the
// unwinding of a later failure: the map guards of the reverse run see that
// exception too, so the maps end forward while the directory goes back.
#include "mail/postfix/virtual_rename.h"

#include <gtest/gtest.h>

#include <boost/filesystem/operations.hpp>

#include <stdexcept>

#include "testing/postfix_maps.h"
#include "testing/test_support.h"

namespace {

namespace pf = zanth::mail::postfix;
using namespace testing_support;
const std::string kOld = "a.example", kNew = "b.example";

void failLaterStep(bool withoutDirectory) {
  pf::renameDomain(kOld, kNew);
  try {
    pf::PostfixRenameGuard guard(kOld, kNew);
    if (withoutDirectory) boost::filesystem::remove_all("/var/qmail/mailnames/b.example");
    throw std::runtime_error("later step");
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("later step", e.what()) << "the first exception goes on";
  }
}

TEST(PostfixRenameGuard, UndoMovesDirectoryBackButLeavesMapsForward) {
  makeSampleMailLayer();
  { pf::PostfixRenameGuard idle(kOld, kNew); }  // no exception: no undo
  EXPECT_TRUE(pathExists("/var/qmail/mailnames/a.example/info"));
  for (bool withoutDirectory : {false, true}) {
    makeSampleMailLayer();
    testing::internal::CaptureStderr();
    failLaterStep(withoutDirectory);
    EXPECT_EQ(withoutDirectory ? "CRITICAL ERROR: Unable to properly restore Postfix Virtual Domains Database "
                                 "used by Zanth.\nMail system may be not usable at the moment and it cannot "
                                 "be repaired automatically.\nConstact Quillon support to resolve this issue.\n"
                               : "",
              testing::internal::GetCapturedStderr());
    for (const char* map : {kVirtualDomainsMap, kVirtualMap, kVmailboxMap})
      EXPECT_EQ(sampleAfter(map), dumpMap(map)) << map;
    EXPECT_EQ(!withoutDirectory, pathExists("/var/qmail/mailnames/a.example/info/Maildir/new/1.eml"));
    EXPECT_FALSE(pathExists("/var/qmail/mailnames/b.example"));
  }
}

}  // namespace
