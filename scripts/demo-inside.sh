#!/usr/bin/env bash
# The demo proper; runs inside testing/sandbox.sh (see scripts/demo.sh).
# Installs the tool into the sandbox's /usr, lays out a small sample mail
# layer at the fixed paths, renames example.org to bücher.example and shows
# every place before and after, while a real Postfix delivers mail to the
# domain's mailbox under the old name and then the new one; then shows a
# failing rename and its undo. The domain check looks at the layout before
# the rename, after it, and after the failing rename; the tool's lines in
# the mail log (a real log daemon) follow each rename.
# Usage: demo-inside.sh BUILD_DIR
# The set-up stops at its first failing command; from the first look at
# the layer on, failures are what the demo shows.
set -euo pipefail
build=$1

[ "${MXKEEP_SANDBOX:-}" = 1 ] || { echo "demo: run me through testing/sandbox.sh" >&2; exit 1; }
cmake --install "$build" --prefix /usr >/dev/null
tool=/usr/sbin/mxkeep_domain_rename
maps=/var/spool/postfix/zanth
mailnames=/var/qmail/mailnames
authdb=$maps/passwd.db
handlers=/opt/orb/handlers
domain_list=/var/lib/zanth/mail/local_domains
. "$(dirname "$0")/../testing/mail_flow.sh"
syslog_daemon=$(dirname "$0")/../testing/syslog_daemon.sh
trap 'mail_flow_stop; "$syslog_daemon" stop' EXIT
"$syslog_daemon" start

banner() { printf '\n=== %s\n' "$*"; }

# run ARGS...: runs the tool, showing its two streams apart and its status.
run() {
  printf '$ mxkeep_domain_rename'
  printf ' %q' "$@"
  printf '\n'
  local out err status
  out=$(mktemp) err=$(mktemp)
  "$tool" "$@" >"$out" 2>"$err"
  status=$?
  sed 's/^/  stderr| /' "$err"
  sed 's/^/  stdout| /' "$out"
  printf '  [exit status %d]\n' "$status"
  rm -f "$out" "$err"
}

# check ARGS...: runs mxkeep_domain_check, showing its report and status.
check() {
  printf '$ mxkeep_domain_check'
  printf ' %q' "$@"
  printf '\n'
  /usr/sbin/mxkeep_domain_check "$@" | sed 's/^/  | /'
  printf '  [exit status %d]\n' "${PIPESTATUS[0]}"
}

map() {  # map NAME "key value" ...: writes a map source and compiles it
  local name=$1; shift
  printf '%s\n' "$@" > "$maps/$name"
  postmap "hash:$maps/$name" && rm -f "$maps/$name"
}

mailbox() {  # mailbox DOMAIN USER
  install -d -o root -g popuser -m 0750 "$mailnames/$1"
  install -d -o popuser -g popuser -m 0700 "$mailnames/$1/$2" \
    "$mailnames/$1/$2/Maildir" "$mailnames/$1/$2/Maildir/"{tmp,new,cur} "$mailnames/$1/$2/@attachments"
}

show_state() {
  local m
  for m in virtual_domains virtual vmailbox; do
    echo "-- map $m (postmap -s):"
    postmap -s "hash:$maps/$m" | sort | sed 's/^/   /'
  done
  local left; left=$(cd $maps && ls | grep -v -e '\.db$' | tr '\n' ' ')
  echo "-- text sources left beside the maps: ${left:-none}"
  echo "-- mail directories:"
  (cd $mailnames && find . -mindepth 1 -maxdepth 2 -printf '   %p  %u:%g %m\n' | sort)
  echo "-- authentication database (domains; users):"
  sqlite3 "$authdb" "SELECT '   ' || id || ' ' || name || ' status=' || status FROM domains ORDER BY id;"
  sqlite3 "$authdb" "SELECT '   ' || u.name || '@' || d.name FROM users u JOIN domains d ON d.id = u.dom_id ORDER BY d.name, u.name;"
  echo "-- plugin domain list $domain_list:"
  sed 's/^/   /' "$domain_list"
  echo "-- handlers (description: type target; switched on in):"
  local h
  for h in "$handlers"/info/*; do
    local t; t=$(cat "$h/handler-type")
    printf '   %s: %s %s; on in %s\n' "${h##*/}" "$t" "$(cat "$h/$t")" \
      "$(cd $handlers && find . -path ./info -prune -o -type f -name "${h##*/}" -printf '%h ')"
  done
  local refreshes=0
  [ -f /var/log/handlers-refresh.log ] && refreshes=$(wc -l < /var/log/handlers-refresh.log)
  echo "-- handler store refreshes so far: $refreshes"
}

banner "Sample mail layer"
map virtual_domains "example.org VIRTUAL" "mail.example.org VIRTUAL" "other.example VIRTUAL"
map virtual "info@example.org info@example.org" "sales@example.org info@example.org, boss@other.example" \
  "@example.org info@example.org" "boss@other.example boss@other.example" \
  "help@mail.example.org info@mail.example.org"
map vmailbox "info@example.org example.org/info/Maildir/" "boss@other.example other.example/boss/Maildir/" \
  "help@mail.example.org mail.example.org/help/Maildir/" "sender@other.example other.example/sender/Maildir/"
mailbox example.org info
mailbox other.example boss
mailbox other.example sender
mailbox mail.example.org help

# The authentication database and the handlers, made by the library.
"$build/mxkeep_demo_seed"
install -d /var/lib/zanth/mail
printf 'example.org\nmail.example.org\nother.example\n' > "$domain_list"

cat > /usr/lib/zanth-9.0/handlers-tmpfs <<'SH'
#!/bin/sh
echo "$*" >> /var/log/handlers-refresh.log
SH
chmod 0755 /usr/lib/zanth-9.0/handlers-tmpfs
set +e
show_state

# deliver ID TO: sends message ID from boss@other.example to TO through
# Postfix and shows where it ended.
deliver() {
  echo "\$ sendmail -f boss@other.example $2    (Message-ID <$1@demo>)"
  mail_flow_send "$1" boss@other.example "$2"
  local status; status=$(mail_flow_wait "$1") || return 1
  echo "  postfix: ${status%%, relay=*} ... status=${status#*status=}"
  mail_flow_find "$1" | sed 's/^/  message file: /'
}

# show_trail TEXT: the rename's lines in the mail log not shown yet, once
# a line holding TEXT is there (the log daemon writes asynchronously).
trail_shown=0
show_trail() {
  "$syslog_daemon" wait "$1"
  echo "-- the mail log /var/log/mail.log, the tool's new lines (priority, tag, text):"
  grep 'mxkeep_domain_rename\[' /var/log/mail.log | tail -n +$((trail_shown + 1)) | sed 's/^/   /'
  trail_shown=$(grep -c 'mxkeep_domain_rename\[' /var/log/mail.log)
}

banner "Postfix delivers to the old name (pickup, cleanup, qmgr, virtual; no network)"
mail_flow_start | sed 's/^/  /'
deliver before info@example.org

banner "Argument checks"
run --help
run --help x
run -- -a b
run '' new.example

banner "Looking before the rename: what it would change, and its hazards"
check example.org bücher.example
check --json example.org bücher.example

banner "Renaming example.org to bücher.example while mail arrives"
echo "(30 numbered messages over 3 s, in turn to info@example.org, to"
echo " info@xn--bcher-kva.example and to boss@other.example; the rename starts"
echo " a second in. While Postfix runs, the tool holds what would bounce or go"
echo " astray in the queue until every place has moved, then delivers it.)"
echo "\$ mxkeep_domain_rename example.org bücher.example"
mail_flow_live_round demo example.org xn--bcher-kva.example other.example 30 3 bücher.example |
  sed 's/^/  /'
sed 's/^/  stdout+stderr| /' "$mail_flow_stream_dir/demo.out"
echo "-- each message by the time it was sent and where it ended (home: the"
echo "   renamed mailbox or boss's; mail to the new name before the rename and"
echo "   to the old name after it bounces back to its sender):"
awk '{ $1 = ""; print }' "$mail_flow_stream_dir/demo.fates" | sort | uniq -c | sed 's/^/  /'
show_state
show_trail "rename ended"

banner "Postfix delivers to the same mailbox under the new name"
deliver after-new info@xn--bcher-kva.example
echo "-- the mailbox's Maildir/new now holds the mail sent before, during and after the rename:"
ls "$mailnames/xn--bcher-kva.example/info/Maildir/new" | wc -l | sed 's/^/   /'

banner "Mail to the old address now bounces back to its sender"
deliver after-old info@example.org
echo "(the file is the bounce notice, in the sender's Maildir)"

banner "Looking after the rename: every place under the new name"
check bücher.example
check example.org

banner "A rename onto a name another domain holds is refused before anything changes"
sqlite3 "$authdb" "INSERT INTO domains (name) VALUES ('shop.example');"
run bücher.example shop.example
show_trail "rename refused"
sqlite3 "$authdb" "DELETE FROM domains WHERE name = 'shop.example';"

banner "A rename that fails late: the authentication database refuses the update"
sqlite3 "$authdb" "CREATE TRIGGER keep BEFORE UPDATE ON domains
                   BEGIN SELECT RAISE(ABORT, 'domains are kept'); END;"
check bücher.example shop.example
run bücher.example shop.example
echo "(maps stay under the new name, the mail directory is back under the old one,"
echo " the authentication database is unchanged: the tool's documented end state)"
show_state
show_trail "rename ended status=1"

banner "Looking after the failed rename: where each name lives, and the way out"
check shop.example
check bücher.example
echo "(fixing the cause, here the refusing trigger, and running the recovery"
echo " command brings every place under one name)"
sqlite3 "$authdb" "DROP TRIGGER keep;"
run xn--bcher-kva.example shop.example
check shop.example
