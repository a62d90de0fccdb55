// Benchmark of the handler rename, the last step of mxkeep_domain_rename.
// Builds handler stores of growing size (10% aimed at the renamed domain or
// its addresses, 2% at look-alike domains, some global, the rest at other
// domains; several templates and hooks) and times handlers_act_on_target
// with the rename action, run in a fresh process of this program, against a
// floor measured on the same store: one pass that reads every handler's
// "handler-type" and value file. Reports time, time per handler, the peak
// memory of the step's process and of the whole tool renaming the same
// store, and checks every result.
//
// Run as root inside the sandbox, since it writes the fixed store paths:
//   testing/sandbox.sh BUILD/handler_rename_bench [HANDLERS...]
// Targets: time per handler flat (largest / smallest <= 1.5), step <= 3x
// its floor at 10,000 handlers, the tool's peak memory under 32 MB.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "common/fixed_paths.h"
#include "mail/auth/auth_db.h"
#include "mail/auth/auth_users.h"
#include "mail/handlers/handler_actions.h"
#include "mail/handlers/handler_mass.h"

namespace {

constexpr const char* kMapDir = zanth::paths::kMapDir;
constexpr const char* kMailNames = zanth::paths::kMailNamesDir;
constexpr const char* kOld = "a.example";
constexpr const char* kNew = "b.example";
constexpr const char* kLookAlikes[] = {"a.example.org", "xa.example"};
constexpr const char* kTemplates[] = {"spamfilter", "virusscan", "greylist", "autoreply"};
constexpr const char* kHooks[] = {"before-queue", "before-local", "smtp"};
constexpr int kRuns = 4;

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "handler_rename_bench: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Processor time (user and system) this process has used so far. The
// ratios are taken on it: wall time on a shared machine mostly measures
// the neighbours.
double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto sec = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; };
  return sec(usage.ru_utime) + sec(usage.ru_stime);
}

// Wall and processor time of one piece of work.
struct Times {
  double wall = 1e9, cpu = 1e9;
  void keepBest(const Times& t) {
    wall = std::min(wall, t.wall);
    cpu = std::min(cpu, t.cpu);
  }
};

long vmHwmKb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.compare(0, 6, "VmHWM:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

// Runs argv to its end with standard output into out (or discarded when
// out is null); returns the wait status and the child's peak RSS in kB.
int run(const std::vector<std::string>& argv, std::string* out, long* maxRssKb = nullptr) {
  int fds[2];
  if (pipe(fds) != 0) die("pipe");
  const pid_t pid = fork();
  if (pid < 0) die("fork");
  if (pid == 0) {
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(out != nullptr ? fds[1] : devnull, 1);
    dup2(devnull, 2);
    close(fds[0]);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(fds[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) die("read");
    if (out != nullptr) out->append(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0)
    if (errno != EINTR) die("wait4");
  if (maxRssKb != nullptr) *maxRssKb = usage.ru_maxrss;
  return status;
}

void mustSucceed(int status, const std::string& what) {
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "handler_rename_bench: %s failed (status %d)\n", what.c_str(), status);
    std::exit(1);
  }
}

// First line of a small file, trailing newline dropped; false when absent.
bool readLine(const std::string& path, std::string* line) {
  std::ifstream in(path);
  if (!in) return false;
  std::getline(in, *line);
  return true;
}

std::string domainOf(const std::string& value) {
  const size_t at = value.find('@');
  return at == std::string::npos ? value : value.substr(at + 1);
}

struct Handler {
  std::string name, hook, type, value;
};

// Every stored handler, read straight from the files.
std::vector<Handler> readStore() {
  std::vector<Handler> all;
  DIR* dir = opendir(kHandlersInfoRoot);
  if (dir == nullptr) die(kHandlersInfoRoot);
  while (const dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    Handler h;
    h.name = e->d_name;
    const std::string base = std::string(kHandlersInfoRoot) + "/" + h.name + "/";
    if (!readLine(base + "hook", &h.hook) || !readLine(base + "handler-type", &h.type) ||
        (h.type != "global" && !readLine(base + h.type, &h.value)))
      die("reading handler " + h.name);
    all.push_back(h);
  }
  closedir(dir);
  return all;
}

bool switchedOn(const Handler& h) {
  std::string queue = std::string(kHandlersQueueRoot) + "/" + h.hook + "/" + h.type;
  if (h.type != "global") queue += "/" + h.value;
  return access((queue + "/" + h.name).c_str(), F_OK) == 0;
}

// What a store was built with, to check a rename against.
struct Store {
  int size = 0;
  int targeted = 0;
  std::set<std::string> untouched;  // look-alike and global handlers
};

void addHandler(const char* type, const std::string& target, int k) {
  const int priority = 5 + 5 * (k % 4);
  if (handler_add(kTemplates[k % 4], type, target.empty() ? nullptr : target.c_str(), "/bin/true",
                  "ctx", kHooks[(k / 4) % 3], std::to_string(priority).c_str(),
                  kHandlerSwitchOn) != 0)
    die("adding a handler for " + target);
}

Store buildStore(int size) {
  const std::string empty =
      std::string("rm -rf ") + kHandlersQueueRoot + " && mkdir -p " + kHandlersInfoRoot;
  mustSucceed(run({"/bin/sh", "-c", empty}, nullptr), "emptying the store");
  Store store;
  store.size = size;
  const char* kAddressTypes[] = {"recipient", "sender"};
  const char* kDomainTypes[] = {"recipient-domain", "sender-domain"};
  int domainHandlers = 0;
  for (int i = 0; i < size; ++i) {
    const int slot = i % 100;
    const std::string user = "user" + std::to_string(i);
    if (slot < 10) {
      // Domain handlers only while their template, hook and type differ:
      // a second one would share the first one's copy.
      if (slot == 0 && domainHandlers < 24) {
        addHandler(kDomainTypes[domainHandlers / 12], kOld, domainHandlers);
        ++domainHandlers;
      } else {
        addHandler(kAddressTypes[i % 2], user + "@" + kOld, i);
      }
      ++store.targeted;
    } else if (slot < 12) {
      const std::string alike = kLookAlikes[slot % 2];
      if (i % 3 == 0)
        addHandler(kDomainTypes[i % 2], alike, i);
      else
        addHandler(kAddressTypes[i % 2], user + "@" + alike, i);
    } else if (slot == 12) {
      addHandler("global", "", i);
    } else {
      const std::string other = "d" + std::to_string(i % 997) + ".example";
      if (slot == 13)
        addHandler(kDomainTypes[i % 2], "d" + std::to_string(i) + ".example", i);
      else
        addHandler(kAddressTypes[i % 2], user + "@" + other, i);
    }
  }
  for (const Handler& h : readStore()) {
    const std::string domain = domainOf(h.value);
    if (h.type == "global" || domain == kLookAlikes[0] || domain == kLookAlikes[1])
      store.untouched.insert(h.name);
  }
  return store;
}

// Checks a rename from -> to; exits with the reason when it is wrong.
void validate(const Store& store, const std::string& from, const std::string& to) {
  int moved = 0, untouched = 0;
  const std::vector<Handler> all = readStore();
  for (const Handler& h : all) {
    const std::string domain = domainOf(h.value);
    if (domain == from) die("handler " + h.name + " left on " + h.value);
    if (domain == to) {
      if (!switchedOn(h)) die("copy " + h.name + " is not switched on");
      ++moved;
    }
    if (store.untouched.count(h.name) != 0) {
      if (!switchedOn(h)) die("untouched " + h.name + " was switched off");
      ++untouched;
    }
  }
  if (moved != store.targeted)
    die(std::to_string(moved) + " copies for " + std::to_string(store.targeted) + " handlers");
  if (untouched != static_cast<int>(store.untouched.size()))
    die("look-alike or global handlers were touched");
  if (static_cast<int>(all.size()) != store.size) die("the store changed size");
}

// The floor: read every handler's type and the value file it names, with
// plain system calls and nothing else.
Times timeFloor() {
  const auto start = std::chrono::steady_clock::now();
  const double cpuStart = cpuSeconds();
  DIR* dir = opendir(kHandlersInfoRoot);
  if (dir == nullptr) die(kHandlersInfoRoot);
  char path[4096], type[512], value[512];
  long bytes = 0;
  auto readFile = [&](char* buf) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    const ssize_t n = read(fd, buf, 511);
    close(fd);
    buf[n > 0 ? n : 0] = '\0';
    buf[std::strcspn(buf, "\n")] = '\0';
    bytes += n;
  };
  while (const dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    std::snprintf(path, sizeof path, "%s/%s/handler-type", kHandlersInfoRoot, e->d_name);
    readFile(type);
    std::snprintf(path, sizeof path, "%s/%s/%s", kHandlersInfoRoot, e->d_name, type);
    readFile(value);
  }
  closedir(dir);
  if (bytes == 0) die("the floor read nothing");
  Times t;
  t.cpu = cpuSeconds() - cpuStart;
  t.wall = seconds(start);
  return t;
}

// The step in a fresh process: prints "wall cpu peak_kB" on success.
int stepMain(const char* from, const char* to) {
  const auto start = std::chrono::steady_clock::now();
  const double cpuStart = cpuSeconds();
  const int result = handlers_act_on_target(from, to, kHandlerRename);
  const double cpu = cpuSeconds() - cpuStart;
  std::printf("%.6f %.6f %ld\n", seconds(start), cpu, vmHwmKb());
  return result == 0 ? 0 : 1;
}

std::string self() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) die("readlink /proc/self/exe");
  return std::string(path, static_cast<size_t>(n));
}

// The maps, mail directory and authentication database the whole tool
// needs before it reaches the handler step.
void prepareTool() {
  const std::string script =
      std::string("cd ") + kMapDir + " && printf '" + kOld + "\\tVIRTUAL\\n' > virtual_domains" +
      " && printf 'user1@" + kOld + "\\tuser1@" + kOld + "\\n' > virtual" + " && printf 'user1@" +
      kOld + "\\t" + kOld + "/user1/\\n' > vmailbox" +
      " && for m in virtual_domains virtual vmailbox; do " + zanth::paths::kPostmapProgram +
      " hash:$m && rm $m; done && rm -rf " + kMailNames + "/* && mkdir -p " + kMailNames + "/" +
      kOld + "/user1";
  mustSucceed(run({"/bin/sh", "-c", script}, nullptr), "preparing the maps");
  if (mail_auth_init(kMailStylePostfix) != 0 ||
      mail_auth_add_user("user1", kOld, "secret", 0) != 0)
    die("creating the authentication database");
}

void benchmark(const std::string& tool, int size, double* perHandler) {
  Store store = buildStore(size);
  prepareTool();

  // The whole tool renames the domain first; its peak memory is what an
  // admin sees (ru_maxrss, which also counts this program's own pages
  // copied into the child before exec, so it is an upper bound).
  long toolRssKb = -1;
  auto start = std::chrono::steady_clock::now();
  mustSucceed(run({tool, kOld, kNew}, nullptr, &toolRssKb), "the tool renaming the domain");
  const double toolSeconds = seconds(start);
  validate(store, kOld, kNew);

  Times step, floor;
  long stepPeakKb = 0;
  for (int i = 0; i < kRuns; ++i) {
    const bool back = i % 2 == 0;
    const std::string from = back ? kNew : kOld, to = back ? kOld : kNew;
    floor.keepBest(timeFloor());
    std::string out;
    mustSucceed(run({self(), "--step", from, to}, &out), "the handler step");
    Times run;
    long peak = 0;
    if (std::sscanf(out.c_str(), "%lf %lf %ld", &run.wall, &run.cpu, &peak) != 3)
      die("step output: " + out);
    validate(store, from, to);
    step.keepBest(run);
    stepPeakKb = std::max(stepPeakKb, peak);
  }
  *perHandler = step.cpu / size;
  std::printf("%7d handlers (%5d renamed): step cpu %7.3f s (%5.1f us/handler, wall %7.3f s), "
              "floor cpu %6.3f s (wall %6.3f s), step/floor cpu %4.2f (wall %4.2f), "
              "step peak %5ld kB; whole tool wall %7.3f s, peak <= %5ld kB\n",
              size, store.targeted, step.cpu, 1e6 * step.cpu / size, step.wall, floor.cpu,
              floor.wall, step.cpu / floor.cpu, step.wall / floor.wall, stepPeakKb,
              toolSeconds, toolRssKb);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (getenv("MXKEEP_SANDBOX") == nullptr) {
    std::fprintf(stderr, "handler_rename_bench: run me inside testing/sandbox.sh\n");
    return 2;
  }
  if (argc == 4 && std::strcmp(argv[1], "--step") == 0) return stepMain(argv[2], argv[3]);

  std::vector<int> sizes;
  for (int i = 1; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
  if (sizes.empty()) sizes = {1000, 10000, 100000};
  std::printf("Drives handlers_act_on_target(old, new, rename) in a fresh process (the tool's "
              "handler step), best of %d runs, no refresh program installed; ratios and time "
              "per handler on processor time (user + system). The whole tool runs once per "
              "size for its peak memory. Results checked: nothing left on the old "
              "domain, one switched-on copy per renamed handler, look-alikes and globals "
              "untouched.\n",
              kRuns);
  std::vector<double> perHandler(sizes.size());
  for (size_t i = 0; i < sizes.size(); ++i) benchmark(MXKEEP_TOOL_PATH, sizes[i], &perHandler[i]);
  std::printf("all results valid; time per handler, largest over smallest store: %.2f\n",
              perHandler.back() / perHandler.front());
  return 0;
}
