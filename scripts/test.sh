#!/usr/bin/env bash
# Installs what is needed, then builds and runs the whole test suite twice:
# a plain build and an AddressSanitizer + UndefinedBehaviorSanitizer build,
# both with -Wall -Wextra -Werror. Every test runs inside its own sandbox.
# Then builds the Debian package, checks it with lintian and runs its
# install-run-purge test.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
jobs=$(nproc)

run_suite() {
  local dir=$1; shift
  echo "==> building $dir"
  cmake -S . -B "$dir" -DMXKEEP_WERROR=ON -DBUILD_TESTING=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "==> testing $dir"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs"
}

run_suite build/plain
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build/sanitize -DMXKEEP_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug

echo "==> building the Debian package"
deb=$(scripts/package.sh | tail -n 1)
echo "==> testing the package: $deb"
testing/package_test.sh "$deb"
