// What both forms of the domain check share: the names of the places a
// rename touches, the findings collector, and the read-only questions both
// forms ask of a place (the authentication database row of a name, the
// handlers aimed at a name, whether a path is there). Reads never fail:
// what cannot be read becomes a failure finding.
#ifndef MXKEEP_CLI_CHECK_PLACES_H
#define MXKEEP_CLI_CHECK_PLACES_H

#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "cli/check_report.h"
#include "mail/postfix/delivery_hold.h"
#include "mail/postfix/virtual_rename.h"

namespace zanth {
namespace cli {

// Place names, as findings and the manual page name them.
constexpr char kPlaceDirectory[] = "mail_directory";
constexpr char kPlaceAuth[] = "auth_database";
constexpr char kPlacePlugins[] = "plugins";
constexpr char kPlaceHandlers[] = "handlers";
constexpr char kPlaceRefresh[] = "handlers_refresh";
constexpr char kPlaceDelivery[] = "delivery";

// The command that completes a rename, as a recovery line names it.
constexpr char kRenameCommand[] = "mxkeep_domain_rename";

// mapPlace - the place name of a virtual map.
const char* mapPlace(mail::postfix::VirtualMap map);

// withCause - "text: cause", or text alone when there is no cause.
std::string withCause(const std::string& text, const std::string& cause);

// trimmed - text without its trailing line ends and blanks.
std::string trimmed(std::string text);

// Collects findings; the plan (changes and facts) comes before the
// hazards and failures, each in the order they were added.
class Findings final {
 public:
  void add(const char* place, FindingKind kind, const std::string& text);
  void change(const char* place, const std::string& text, const std::string& before,
              const std::string& after);

  int hazards() const { return hazards_; }
  int failures() const { return failures_; }
  std::vector<Finding> all() const;

 private:
  std::vector<Finding> plan_;
  std::vector<Finding> problems_;
  int hazards_ = 0;
  int failures_ = 0;
};

// present - something (of any type, links not followed) is at path.
bool present(const boost::filesystem::path& path);

// emptyDirectory - path is a directory with nothing in it.
bool emptyDirectory(const boost::filesystem::path& path);

// lookUpDomain - 1 with *users when name has a row in the authentication
// database, 0 when not, -1 with a failure finding added.
int lookUpDomain(Findings& findings, const std::string& name, long* users);

// domainRow - "domain NAME (N users)", as findings show a row.
std::string domainRow(const std::string& name, long users);

// heldBy - how a finding names the rename a delivery hold was left by.
std::string heldBy(const mail::postfix::HoldRecord& record);

// A handler aimed at a name (or an address in it): its name, its target,
// and the target it moves to.
struct HandlerMove {
  std::string name;
  std::string target;
  std::string movedTo;
};

// handlersAimedAt - the handlers aimed at target, each with the target it
// has under newTarget. Unreadable handlers become failure findings; false
// when the store itself cannot be read.
bool handlersAimedAt(Findings& findings, const std::string& target, const std::string& newTarget,
                     std::vector<HandlerMove>* moves);

// A place where both names of a rename live. Renaming one onto the other
// would merge two domains there, and an undo would then rename the other
// domain's own entries too, so the rename refuses before changing anything.
struct Clash {
  const char* place;
  std::string what;  // the two entries, as findings show them
};

// clashes - the places where both oldName and newName are present: a key
// of virtual_domains, a mail directory with something in it, a row of the
// authentication database, handlers while the old name is still routed. A
// place a stopped rename already moved holds the new name only, so its
// rerun goes on; a place that cannot be read is left to the step that
// reads it.
std::vector<Clash> clashes(const std::string& oldName, const std::string& newName);

// clashRefusal - why the rename refuses clashes, one line.
std::string clashRefusal(const std::string& oldName, const std::string& newName,
                         const std::vector<Clash>& found);

}  // namespace cli
}  // namespace zanth

#endif  // MXKEEP_CLI_CHECK_PLACES_H
