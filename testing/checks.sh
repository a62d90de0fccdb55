# Shell functions of the end-to-end shell tests: each check prints "ok: ..."
# or "FAILED: ..." and counts failures; checks_done ends the test with the
# count. Sourced by mail_flow_test.sh, live_rename_test.sh, package_test.sh.

failures=0

# fail DESCRIPTION: counts a failed check.
fail() {
  echo "FAILED: $1" >&2
  failures=$((failures + 1))
}

# check DESCRIPTION COMMAND...: the command's success is the check.
check() {
  local what=$1; shift
  if "$@"; then echo "ok: $what"; else fail "$what"; fi
}

# expect DESCRIPTION ACTUAL EXPECTED: the two texts are equal.
expect() {
  if [ "$2" = "$3" ]; then echo "ok: $1"
  else fail "$1"; printf '  got:  %s\n  want: %s\n' "$2" "$3" >&2; fi
}

# checks_done NAME: exits 1 when a check failed, else says NAME passed.
checks_done() {
  [ "$failures" = 0 ] || { echo "$failures check(s) failed" >&2; exit 1; }
  echo "$1 passed"
}
