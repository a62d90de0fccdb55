// The rename's lines in the system log. See rename_trail.h.
#include "cli/rename_trail.h"

#include "cli/check_places.h"
#include "cli/name_locator.h"
#include "common/syslog_trail.h"
#include "process/termination.h"

namespace zanth {
namespace cli {
namespace rename_trail {
namespace {

// The names of the rename under way, as it writes them; empty before start.
std::string g_old;
std::string g_new;

// How long the final look at the places may wait on any one of them.
constexpr long kFinalLookLimitMs = 2000;

}  // namespace

void refused(const std::string& error, const std::string& givenOld, const std::string& givenNew) {
  trail::open(kIdent);
  std::string text = "rename refused";
  if (!givenOld.empty()) text += trail::field("old", givenOld);
  if (!givenNew.empty()) text += trail::field("new", givenNew);
  trail::line(LOG_ERR, text + trail::field("error", error));
}

void started(const std::string& givenOld, const std::string& givenNew, const std::string& oldName,
             const std::string& newName) {
  g_old = oldName;
  g_new = newName;
  trail::open(kIdent);
  trail::line(LOG_NOTICE, "rename started" + trail::field("old", givenOld) +
                              trail::field("new", givenNew) + trail::field("old_ascii", oldName) +
                              trail::field("new_ascii", newName));
}

std::string postfixDetails(const mail::postfix::PostfixRenameResult& result) {
  std::string details;
  for (size_t i = 0; i < std::size(mail::postfix::kVirtualMaps); ++i)
    details +=
        trail::field(mapPlace(mail::postfix::kVirtualMaps[i]), std::to_string(result.records[i]));
  return details + trail::field(kPlaceDirectory, result.directoryMoved ? "moved" : "already_moved");
}

void stepEnded(const char* step, const std::string& details) {
  trail::line(LOG_INFO,
              "rename step" + trail::field("step", step) + trail::field("result", "ok") + details);
}

void stepFailed(const char* step, const std::string& error) {
  trail::line(LOG_ERR, "rename step" + trail::field("step", step) +
                           trail::field("result", "failed") + trail::field("error", error));
}

bool isStarted() { return !g_old.empty(); }

void ended(int status) {
  if (!isStarted()) return;
  std::string text = "rename ended" + trail::field("status", std::to_string(status)) +
                     trail::field("old", g_old) + trail::field("new", g_new);
  if (status == 0) {
    trail::line(LOG_NOTICE, text);
    return;
  }
  // Where each place stands, in the words of mxkeep_domain_check: under
  // the new name wherever it is found at all, otherwise all under the old.
  if (trail::isOpen()) {
    process::setWaitLimit(kFinalLookLimitMs);
    const CheckReport underNew = checkName(g_new);
    if (underNew.verdict != kInNoPlace) {
      text += trail::field("places", g_new + ": " + underNew.verdict) +
              trail::field("recovery", std::string(kRenameCommand) + " " + g_old + " " + g_new);
    } else {
      text += trail::field("places", g_old + ": " + checkName(g_old).verdict) +
              trail::field("recovery", "none");
    }
  }
  trail::line(LOG_ERR, text);
}

}  // namespace rename_trail
}  // namespace cli
}  // namespace zanth
