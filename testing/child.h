// Runs a piece of the test in a forked child with its standard output and
// standard error captured, for code that ends the process on failure or
// whose locks belong to the process that takes them.
#ifndef MXKEEP_TESTING_CHILD_H
#define MXKEEP_TESTING_CHILD_H

#include <functional>

#include "testing/test_support.h"

namespace testing_support {

// Forks; the child, its input /dev/null, runs body and exits with its result
// (or with the status the body exits with itself). Gives the wait status and
// both streams.
RunResult runInChild(const std::function<int()>& body);

}  // namespace testing_support

#endif  // MXKEEP_TESTING_CHILD_H
