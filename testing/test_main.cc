// Entry of the test binary. Outside the sandbox it re-runs itself through
// testing/sandbox.sh, so that no test can ever write the host's /etc, /var,
// /opt or /usr, whoever starts it and however.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  const char* inside = std::getenv("MXKEEP_SANDBOX");
  if (inside == nullptr || std::strcmp(inside, "1") != 0) {
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
  return RUN_ALL_TESTS();
}
