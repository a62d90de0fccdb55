#!/usr/bin/env bash
# The demo proper; runs inside testing/sandbox.sh (see scripts/demo.sh).
# Usage: demo-inside.sh BUILD_DIR
set -uo pipefail
build=$1

[ "${MXKEEP_SANDBOX:-}" = 1 ] || { echo "demo: run me through testing/sandbox.sh" >&2; exit 1; }
cmake --install "$build" --prefix /usr >/dev/null || exit 1
tool=/usr/sbin/mxkeep_domain_rename

banner() { printf '\n=== %s\n' "$*"; }

run() {
  printf '$ %s\n' "$*"
  "$@"
  printf '[exit status %d]\n' $?
}

banner "Argument checks"
run "$tool" --help
run "$tool" --help x
run "$tool" -- -a b
run "$tool" '' new.example

banner "IDN conversion failure"
run "$tool" example.org 'bad..name'

banner "Renaming example.org to bücher.example"
run "$tool" example.org bücher.example
