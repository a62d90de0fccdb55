#!/usr/bin/env bash
# Builds the fuzz targets (fuzz/) with clang and libFuzzer in build/fuzz and
# runs each for SECONDS (default 60), starting from its seed corpus. Prints
# per target the executions, the corpus size and any crash with the file
# that holds its input; exits non-zero when a target crashed or hung.
#   bash scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
case $seconds in
  '' | *[!0-9]*) echo "usage: $0 [SECONDS]" >&2; exit 2 ;;
esac

scripts/install-deps.sh fuzz
build=build/fuzz
echo "==> building $build"
CC=clang-16 CXX=clang++-16 cmake -S . -B "$build" -DMXKEEP_FUZZ=ON -DMXKEEP_WERROR=ON >/dev/null
cmake --build "$build" -j"$(nproc)"

mkdir -p "$build/artifacts" "$build/logs"
# Symbolised stack traces in the reports, when a symbolizer is installed.
symbolizer=$(command -v llvm-symbolizer-16 || command -v llvm-symbolizer || true)
if [ -n "$symbolizer" ]; then export ASAN_SYMBOLIZER_PATH=$symbolizer; fi
failed=0
for source in fuzz/*_fuzz.cc; do
  name=$(basename "$source" _fuzz.cc)
  corpus=$build/corpus/$name
  log=$build/logs/$name.log
  mkdir -p "$corpus"
  rm -f "$build/artifacts/$name-"*
  # fuzz/NAME.options: extra fuzzer flags of one target, one a line.
  options=()
  [ -f "fuzz/$name.options" ] && mapfile -t options <"fuzz/$name.options"
  status=0
  # New inputs go to the build's corpus; the seeds in fuzz/corpus stay as
  # they are. A run that takes 10 s for one input counts as a hang.
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$build/fuzz/${name}_fuzz" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    "${options[@]}" -artifact_prefix="$build/artifacts/$name-" "$corpus" "fuzz/corpus/$name" \
    >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  corp=$(grep -o 'corp: [0-9]*/[0-9]*[a-zA-Z]*' "$log" | tail -n 1 | cut -d' ' -f2)
  printf '%-14s executions %-10s corpus %s\n' "$name" "${runs:-?}" "${corp:-?}"
  if [ "$status" -ne 0 ]; then
    failed=1
    echo "  FAILED (status $status); input saved as:"
    ls "$build/artifacts/$name-"* 2>/dev/null | sed 's/^/    /'
    echo "  report ($log):"
    grep -m 1 -A 30 -E '^==[0-9]+==|property violated|runtime error|libFuzzer: ' "$log" | sed 's/^/    /'
  fi
done
exit "$failed"
