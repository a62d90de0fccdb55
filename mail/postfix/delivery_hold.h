// Holding mail delivery around a rename on a live server. While the three
// maps are rewritten one after the other they disagree, and Postfix's
// daemons answer from whichever version they opened last: mail resolved
// meanwhile would bounce, or be delivered into a new directory of either
// name. While Postfix runs, the hold makes every bounce a deferral
// (soft_bounce = yes, with a reload so that every daemon has it), waits
// until mail to the old name submitted before the rename has left the
// queue, and has the rename keep a directory hold in the mail directory's
// other place (mail_dirs.h). Released, it puts soft_bounce back, reloads
// Postfix so that no daemon answers from the old maps, removes the holds
// no map routes mail to any more and asks for the mail deferred meanwhile
// to be delivered at once.
//
// What the hold changed is written to a file first and removed last, so a
// rename killed meanwhile leaves a record that the same rename run again
// takes over and releases. Without a running Postfix (and no record) the
// hold does nothing at all. Failures throw PostfixError.
//
//   DeliveryHold hold(oldName, newName);
//   renameDomain(oldName, newName, hold.directoryHolds());
//   ...
//   hold.release();
#ifndef MXKEEP_MAIL_POSTFIX_DELIVERY_HOLD_H
#define MXKEEP_MAIL_POSTFIX_DELIVERY_HOLD_H

#include <ctime>
#include <memory>
#include <string>

#include "mail/postfix/virtual_rename.h"
#include "process/lock.h"

namespace zanth {
namespace mail {
namespace postfix {

// What a hold changed, as its record keeps it.
struct HoldRecord {
  std::string oldName;
  std::string newName;
  std::time_t since = 0;       // when the hold began
  bool softBounceSet = false;  // soft_bounce was in main.cf before the hold
  std::string softBounce;      // its value then
};

// postfixRunning - Postfix's master process is alive.
bool postfixRunning();

// readHoldRecord - true with *record filled when a hold's record exists.
bool readHoldRecord(HoldRecord* record);

// holdLeftBehind - true with *record filled when a hold's record exists
// and no rename holds it: a rename was killed while holding delivery.
bool holdLeftBehind(HoldRecord* record);

class DeliveryHold final {
 public:
  // Engages the hold while Postfix runs, or takes over a hold left behind.
  // Waits for a hold of another rename to end (a termination signal ends
  // the wait). Throws PostfixError "cannot hold mail delivery for the
  // rename: <cause>" with nothing changed.
  DeliveryHold(const std::string& oldName, const std::string& newName);
  // Releases a hold not released yet; a failure is reported on the error
  // stream, never thrown.
  ~DeliveryHold();
  DeliveryHold(const DeliveryHold&) = delete;
  DeliveryHold& operator=(const DeliveryHold&) = delete;

  // kOn while Postfix delivers: the rename keeps directory holds.
  DirectoryHolds directoryHolds() const { return holds_; }

  // release - puts back what the hold changed. Throws PostfixError "cannot
  // release the mail delivery hold: <cause>"; the record then stays, for
  // the same rename run again to release it.
  void release();

 private:
  void engage();
  void releaseOrThrow();

  const std::string oldName_;
  const std::string newName_;
  const std::time_t started_;
  bool active_ = false;    // engaged, or taken over, and not released yet
  bool running_ = false;   // Postfix ran when the hold began
  bool recorded_ = false;  // the record is written: main.cf may differ
  DirectoryHolds holds_ = DirectoryHolds::kOff;
  HoldRecord record_;
  std::unique_ptr<ScopedLock> lock_;
};

}  // namespace postfix
}  // namespace mail
}  // namespace zanth

#endif  // MXKEEP_MAIL_POSTFIX_DELIVERY_HOLD_H
