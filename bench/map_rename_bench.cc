// Benchmark of mxkeep_domain_rename on large maps, where its time goes to
// the Postfix step.
// Builds the three virtual maps with many domains at two sizes ten times
// apart, then compares the tool's wall time for one rename with the bare
// cost of the same work done by postmap alone (dump with "postmap -s" into
// the text source, rebuild with "postmap"), and reports the tool's own
// peak resident memory (VmHWM of the tool process at its exit, read while
// it is stopped there under ptrace; the postmap children are not counted).
//
// Run as root inside the sandbox, since it writes the fixed map paths:
//   testing/sandbox.sh BUILD/map_rename_bench [TOOL] [SMALL_LINES]
// Targets: ratio <= 1.15, peak memory flat across the two sizes.
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/fixed_paths.h"
#include "mail/auth/auth_db.h"
#include "mail/auth/auth_users.h"

namespace {

constexpr const char* kPostmap = zanth::paths::kPostmapProgram;
constexpr const char* kMapDir = zanth::paths::kMapDir;
constexpr const char* kMailNames = zanth::paths::kMailNamesDir;
constexpr const char* kMaps[] = {"virtual_domains", "virtual", "vmailbox"};
constexpr int kUsersPerDomain = 10;
constexpr int kRuns = 5;

std::string mapSpec(const char* name) { return std::string("hash:") + kMapDir + "/" + name; }
std::string mapFile(const char* name) { return std::string(kMapDir) + "/" + name; }

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "map_rename_bench: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

// Runs argv with standard output to outPath (or inherited when empty);
// returns the wait status.
int run(const std::vector<std::string>& argv, const std::string& outPath = "") {
  const pid_t pid = fork();
  if (pid < 0) die("fork");
  if (pid == 0) {
    if (!outPath.empty()) {
      const int fd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd < 0 || dup2(fd, 1) < 0) _exit(126);
      close(fd);
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) die("waitpid");
  return status;
}

void mustSucceed(int status, const std::string& what) {
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "map_rename_bench: %s failed (status %d)\n", what.c_str(), status);
    std::exit(1);
  }
}

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

std::string domainName(int d) {
  char name[32];
  std::snprintf(name, sizeof name, "d%06d.example", d);
  return name;
}

// Writes the three map sources for `domains` domains and builds them;
// returns the number of records. Record order is scrambled by the hash
// database anyway, so the sources are written domain by domain.
long buildMaps(int domains) {
  std::ofstream vd(mapFile("virtual_domains")), va(mapFile("virtual")), vm(mapFile("vmailbox"));
  long lines = 0;
  for (int d = 0; d < domains; ++d) {
    const std::string dom = domainName(d);
    vd << dom << "\tVIRTUAL\n";
    va << "@" << dom << "\tcatchall@" << dom << "\n";
    lines += 2;
    for (int u = 0; u < kUsersPerDomain; ++u) {
      const std::string user = "user" + std::to_string(u);
      if (u % 3 == 0)
        va << user << "@" << dom << "\t" << user << "@" << dom << ", " << user << "@mail." << dom
           << ", forward" << u << "@" << domainName((d + 1) % domains) << "\n";
      else
        va << user << "@" << dom << "\t" << user << "@" << dom << "\n";
      vm << user << "@" << dom << "\t" << dom << "/" << user << "/\n";
      lines += 2;
    }
  }
  vd.close();
  va.close();
  vm.close();
  for (const char* name : kMaps) {
    mustSucceed(run({kPostmap, mapSpec(name)}), "postmap " + mapSpec(name));
    unlink(mapFile(name).c_str());
  }
  return lines;
}

// The bare cost: dump each map into its text source and rebuild it.
double timePostmapAlone() {
  const auto start = std::chrono::steady_clock::now();
  for (const char* name : kMaps) {
    mustSucceed(run({kPostmap, "-s", mapSpec(name)}, mapFile(name)), "postmap -s");
    mustSucceed(run({kPostmap, mapSpec(name)}), "postmap");
    unlink(mapFile(name).c_str());
  }
  return seconds(start);
}

long vmHwmKb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line))
    if (line.compare(0, 6, "VmHWM:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

// Runs the tool once; returns its wall time and stores its own peak RSS,
// read at its exit stop under ptrace, in *peakKb.
double timeTool(const std::string& tool, const std::string& from, const std::string& to,
                long* peakKb) {
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid < 0) die("fork");
  if (pid == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    execl(tool.c_str(), tool.c_str(), from.c_str(), to.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  bool optionsSet = false;
  for (;;) {
    if (waitpid(pid, &status, 0) < 0) {
      if (errno == EINTR) continue;
      die("waitpid");
    }
    if (WIFEXITED(status) || WIFSIGNALED(status)) break;
    if (!WIFSTOPPED(status)) continue;
    int deliver = 0;
    if (!optionsSet && WSTOPSIG(status) == SIGTRAP) {
      // The stop after exec: from now on also stop at exit.
      ptrace(PTRACE_SETOPTIONS, pid, nullptr, reinterpret_cast<void*>(PTRACE_O_TRACEEXIT));
      optionsSet = true;
    } else if (status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8))) {
      *peakKb = vmHwmKb(pid);
    } else {
      deliver = WSTOPSIG(status);  // pass the tool's own signals (SIGCHLD) on
    }
    ptrace(PTRACE_CONT, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(deliver)));
  }
  const double elapsed = seconds(start);
  mustSucceed(status, "the tool renaming " + from + " to " + to);
  return elapsed;
}

void benchmark(const std::string& tool, int domains) {
  const long lines = buildMaps(domains);
  const std::string oldName = domainName(domains / 2);
  const std::string newName = "renamed-domain.example";
  mustSucceed(run({"/bin/sh", "-c",
                   std::string("rm -rf ") + kMailNames + "/* && mkdir -p " + kMailNames + "/" +
                       oldName + "/user1"}),
              "preparing the mail directory");
  // The later steps of the rename need the authentication database.
  if (mail_auth_init(kMailStylePostfix) != 0 ||
      mail_auth_add_user("user1", oldName.c_str(), "secret", 0) != 0) {
    std::fprintf(stderr, "map_rename_bench: cannot create the authentication database\n");
    std::exit(1);
  }

  std::vector<double> ratios;
  long peakKb = -1;
  double bestTool = 1e9, bestBare = 1e9;
  for (int i = 0; i < kRuns; ++i) {
    // Alternate directions so every run renames a domain that exists.
    const bool forward = i % 2 == 0;
    const double bare = timePostmapAlone();
    long peak = -1;
    const double own = timeTool(tool, forward ? oldName : newName, forward ? newName : oldName, &peak);
    peakKb = std::max(peakKb, peak);
    ratios.push_back(own / bare);
    bestTool = std::min(bestTool, own);
    bestBare = std::min(bestBare, bare);
  }
  std::sort(ratios.begin(), ratios.end());
  std::printf("%9ld lines %6d domains: best tool %6.3f s, best postmap alone %6.3f s, "
              "ratio of bests %.3f, median ratio of %d runs %.3f; tool peak RSS %ld kB\n",
              lines, domains, bestTool, bestBare, bestTool / bestBare, kRuns,
              ratios[ratios.size() / 2], peakKb);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (getenv("MXKEEP_SANDBOX") == nullptr) {
    std::fprintf(stderr, "map_rename_bench: run me inside testing/sandbox.sh\n");
    return 2;
  }
  const std::string tool = argc > 1 ? argv[1] : MXKEEP_TOOL_PATH;
  const long smallLines = argc > 2 ? std::atol(argv[2]) : 105000;
  // Each domain gives 2 + 2 * kUsersPerDomain records.
  const int smallDomains = static_cast<int>(smallLines / (2 + 2 * kUsersPerDomain));
  if (smallDomains < 2) {
    std::fprintf(stderr, "map_rename_bench: SMALL_LINES too small\n");
    return 2;
  }
  benchmark(tool, smallDomains);
  benchmark(tool, smallDomains * 10);
  return 0;
}
