// Mail delivery held around a rename: Postfix's soft_bounce switched on and
// off through postconf, reloads whose effect is waited for by watching the
// master's children, the queue read through "postqueue -j", and the hold's
// record. See delivery_hold.h.
#include "mail/postfix/delivery_hold.h"

#include <dirent.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "common/errors.h"
#include "common/file_util.h"
#include "common/fixed_paths.h"
#include "common/syscall.h"
#include "mail/postfix/errors.h"
#include "mail/postfix/mail_dirs.h"
#include "mail/postfix/postfix_programs.h"
#include "mail/postfix/virtual_check.h"
#include "process/file_str.h"
#include "process/termination.h"

namespace zanth {
namespace mail {
namespace postfix {
namespace {

namespace chrono = std::chrono;

// The lock that makes holds of concurrent renames take turns: one rename's
// release must not undo another's hold.
constexpr const char* kHoldLockName = "postfix delivery hold";
constexpr const char* kSoftBounce = "soft_bounce";
constexpr mode_t kRecordMode = 0600;
// Postfix's programs and daemons wait before reading a main.cf younger than
// two seconds, so an edited main.cf is dated back by that much: the reload
// and every program the rename runs next start at once.
constexpr int kMainCfSettleSeconds = 2;
// How long a reload may take to replace every daemon, and how long mail to
// the old name submitted before the rename may take to leave the queue;
// past that the rename goes on.
constexpr chrono::seconds kReloadDeadline(10);
constexpr chrono::seconds kDrainDeadline(10);
constexpr chrono::milliseconds kPollInterval(50);

// The pid of Postfix's master, 0 when it does not run.
pid_t masterPid() {
  std::ifstream in(paths::kPostfixMasterPid);
  long pid = 0;
  if (!(in >> pid) || pid <= 0) return 0;
  if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM) return 0;
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  return std::getline(comm, name) && name == "master" ? static_cast<pid_t>(pid) : 0;
}

// The children of the master now: the daemons a reload must replace.
std::set<pid_t> childrenOf(pid_t parent) {
  std::set<pid_t> children;
  UniqueDir proc(::opendir("/proc"));
  if (!proc) return children;
  while (const struct dirent* entry = ::readdir(proc.get())) {
    const pid_t pid = static_cast<pid_t>(std::atol(entry->d_name));
    if (pid <= 0) continue;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) continue;
    // "pid (comm) state ppid ...": the name may hold blanks and parentheses.
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string state;
    long ppid = 0;
    if (fields >> state >> ppid && ppid == parent) children.insert(pid);
  }
  return children;
}

// waitUntil - polls until done() or the deadline or a termination signal.
template <class Done>
void waitUntil(chrono::seconds deadline, Done done) {
  const auto end = chrono::steady_clock::now() + deadline;
  while (!done() && process::heldTerminationSignal() == 0 && chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(kPollInterval);
}

// reload - "postfix reload", then waits until every daemon that ran before
// it has gone: the ones after it read main.cf and the maps afresh.
void reload(pid_t master) {
  const std::set<pid_t> before = childrenOf(master);
  runPostfixProgram({paths::kPostfixProgram, "reload"});
  waitUntil(kReloadDeadline, [&] {
    const std::set<pid_t> now = childrenOf(master);
    for (pid_t pid : before)
      if (now.count(pid) != 0) return false;
    return true;
  });
}

void settleMainCf() {
  const std::time_t then = std::time(nullptr) - kMainCfSettleSeconds;
  struct timespec times[2] = {{then, 0}, {then, 0}};
  if (::utimensat(AT_FDCWD, paths::kPostfixMainCf, times, 0) != 0)
    throw SystemError(std::string("utimensat ") + paths::kPostfixMainCf);
}

void setSoftBounce(bool set, const std::string& value) {
  if (set)
    runPostfixProgram({paths::kPostconfProgram, "-e", std::string(kSoftBounce) + "=" + value});
  else
    runPostfixProgram({paths::kPostconfProgram, "-X", kSoftBounce});
  settleMainCf();
}

// One message of "postqueue -j": the fields the hold looks at.
struct Queued {
  std::string queue;
  std::string id;
  std::time_t arrival = 0;
  std::vector<std::string> recipients;
};

// stringField - the value of "key": "value" in a JSON line from offset on;
// postqueue escapes no character the hold looks for.
std::string stringField(const std::string& line, const std::string& key,
                        std::string::size_type* from) {
  const std::string head = "\"" + key + "\": \"";
  const std::string::size_type at = line.find(head, *from);
  if (at == std::string::npos) return std::string();
  const std::string::size_type start = at + head.size();
  const std::string::size_type end = line.find('"', start);
  *from = end;
  return line.substr(start, end - start);
}

std::vector<Queued> queue() {
  std::vector<Queued> messages;
  std::istringstream in(runPostfixProgram({paths::kPostqueueProgram, "-j"}));
  for (std::string line; std::getline(in, line);) {
    Queued message;
    std::string::size_type at = 0;
    message.queue = stringField(line, "queue_name", &at);
    at = 0;
    message.id = stringField(line, "queue_id", &at);
    const std::string::size_type time = line.find("\"arrival_time\": ");
    if (time != std::string::npos) message.arrival = std::atol(line.c_str() + time + 16);
    at = 0;
    for (std::string address; !(address = stringField(line, "address", &at)).empty();)
      message.recipients.push_back(address);
    messages.push_back(message);
  }
  return messages;
}

bool endsWithDomain(const std::string& address, const std::string& domain) {
  const std::string::size_type at = address.rfind('@');
  return at != std::string::npos && ::strcasecmp(address.c_str() + at + 1, domain.c_str()) == 0;
}

// drain - waits until no message submitted up to `until` for an address
// of domain is still on its way (a message not yet cleaned up shows its
// recipients unexpanded, so any such message counts).
void drain(const std::string& domain, std::time_t until) {
  waitUntil(kDrainDeadline, [&] {
    for (const Queued& message : queue()) {
      if (message.queue == "deferred" || message.queue == "hold" || message.arrival > until)
        continue;
      if (message.queue == "maildrop") return false;
      for (const std::string& address : message.recipients)
        if (endsWithDomain(address, domain)) return false;
    }
    return true;
  });
}

// flushSince - asks for the mail deferred since `since` to be delivered now.
void flushSince(std::time_t since) {
  for (const Queued& message : queue())
    if (message.queue == "deferred" && message.arrival >= since - 1)
      postfixProgramStatus({paths::kPostqueueProgram, "-i", message.id}, nullptr);
}

std::string recordText(const HoldRecord& record) {
  std::ostringstream out;
  out << "old " << record.oldName << "\nnew " << record.newName << "\nsince " << record.since
      << "\n";
  if (record.softBounceSet) out << kSoftBounce << " " << record.softBounce << "\n";
  return out.str();
}

void writeRecord(const HoldRecord& record) {
  const std::string dir = boost::filesystem::path(paths::kDeliveryHoldFile).parent_path().string();
  ReplacementFile file(paths::kDeliveryHoldFile);
  if (!make_dirs(dir.c_str()) || !file.open() || !file.write(recordText(record)) ||
      !file.commit(kRecordMode))
    throw SystemError(std::string("cannot write ") + paths::kDeliveryHoldFile);
}

}  // namespace

bool postfixRunning() { return masterPid() != 0; }

bool readHoldRecord(HoldRecord* record) {
  std::ifstream in(paths::kDeliveryHoldFile);
  if (!in) return false;
  *record = HoldRecord();
  for (std::string key, value; in >> key && std::getline(in >> std::ws, value);) {
    if (key == "old") record->oldName = value;
    if (key == "new") record->newName = value;
    if (key == "since") record->since = std::atol(value.c_str());
    if (key == kSoftBounce) {
      record->softBounceSet = true;
      record->softBounce = value;
    }
  }
  return true;
}

bool holdLeftBehind(HoldRecord* record) {
  return readHoldRecord(record) && lockHeld(kHoldLockName, kLockHashed) == 0;
}

DeliveryHold::DeliveryHold(const std::string& oldName, const std::string& newName)
    : oldName_(oldName), newName_(newName), started_(std::time(nullptr)) {
  running_ = postfixRunning();
  if (!running_ && !readHoldRecord(&record_)) return;
  lock_.reset(new ScopedLock(kHoldLockName, kLockHashed, kLockWait));
  active_ = true;
  try {
    engage();
  } catch (const std::exception& e) {
    // Nothing of the rename has happened yet: put back what was held.
    try {
      releaseOrThrow();
    } catch (const std::exception&) {
      // The record stays; the same rename run again releases it.
    }
    throw PostfixError(std::string("cannot hold mail delivery for the rename: ") + e.what());
  }
}

void DeliveryHold::engage() {
  if (readHoldRecord(&record_)) {
    recorded_ = true;  // left behind by a killed rename: taken over as it is
  } else {
    record_ = HoldRecord{oldName_, newName_, started_, false, std::string()};
    std::string current;
    if (postfixProgramStatus({paths::kPostconfProgram, "-nh", kSoftBounce}, &current) == 0 &&
        !current.empty()) {
      record_.softBounceSet = true;
      record_.softBounce = current.substr(0, current.find('\n'));
    }
    writeRecord(record_);
    recorded_ = true;
  }
  if (!running_) return;
  holds_ = DirectoryHolds::kOn;
  setSoftBounce(true, "yes");
  const pid_t master = masterPid();
  if (master != 0) reload(master);
  drain(oldName_, started_);
}

void DeliveryHold::releaseOrThrow() {
  if (!active_) return;
  // Without a record nothing was changed, and soft_bounce is the admin's.
  if (recorded_) setSoftBounce(record_.softBounceSet, record_.softBounce);
  const pid_t master = masterPid();
  if (master != 0) reload(master);
  // Once every daemon answers from the finished maps, a hold is needed
  // only where the maps route mail to a directory that is not there.
  for (const std::string& name : {oldName_, newName_, record_.oldName, record_.newName})
    if (!name.empty() && domainDirectoryHeld(name) && domainRouted(name) == 0)
      releaseDomainDirectory(name);
  if (master != 0) flushSince(record_.since);
  if (recorded_ && ::unlink(paths::kDeliveryHoldFile) != 0 && errno != ENOENT)
    throw SystemError(std::string("unlink ") + paths::kDeliveryHoldFile);
  active_ = false;
  lock_.reset();
}

void DeliveryHold::release() {
  try {
    releaseOrThrow();
  } catch (const std::exception& e) {
    active_ = false;  // reported once, here; the record stays for a rerun
    throw PostfixError(std::string("cannot release the mail delivery hold: ") + e.what());
  }
}

DeliveryHold::~DeliveryHold() {
  try {
    release();
  } catch (const std::exception& e) {
    errorStream << e.what() << std::endl;
  }
}

}  // namespace postfix
}  // namespace mail
}  // namespace zanth
