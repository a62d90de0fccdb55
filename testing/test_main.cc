// Entry of the test binary. Outside the sandbox it re-runs itself through
// testing/sandbox.sh, so that no test can ever write the host's /etc, /var,
// /opt or /usr, whoever starts it and however; inside, every test starts
// from the fresh layout of those paths.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// ctest gives every test its own sandbox; a run of many tests in one
// process resets the layout of the fixed paths between them instead.
class FreshLayout final : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo&) override {
    const std::string reset = std::string(MXKEEP_SOURCE_DIR) + "/testing/sandbox.sh --reset-layout";
    if (!first_ && std::system(reset.c_str()) != 0) {
      std::fprintf(stderr, "cannot reset the sandbox layout\n");
      std::exit(1);
    }
    first_ = false;
  }

 private:
  bool first_ = true;
};

// listingOnly - whether the run only lists the tests (ctest's discovery),
// which touches no path and so needs no sandbox, nor root.
bool listingOnly(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--gtest_list_tests") == 0) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const char* inside = std::getenv("MXKEEP_SANDBOX");
  if ((inside == nullptr || std::strcmp(inside, "1") != 0) && !listingOnly(argc, argv)) {
    std::string sandbox = std::string(MXKEEP_SOURCE_DIR) + "/testing/sandbox.sh";
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return 1;
    self[n] = '\0';
    std::vector<char*> args{const_cast<char*>(sandbox.c_str()), self};
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    execv(args[0], args.data());
    perror("exec testing/sandbox.sh");
    return 1;
  }
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new FreshLayout);
  return RUN_ALL_TESTS();
}
