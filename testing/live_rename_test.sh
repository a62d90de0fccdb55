#!/usr/bin/env bash
# End-to-end test: renames on a live server. A real Postfix delivers a
# steady stream of numbered messages to the old name, the new name and a
# control mailbox while the installed tool renames the domain (maps of
# RECORDS records each, so that each rebuild takes a noticeable time), and
# every message is accounted for: nothing stray, lost or stuck, mail to the
# new name delivered from the rename on, bounces only where the names say.
# Then a rename failing late under the stream (mail to the new name waits
# in the queue) and its rerun (which delivers it), and a rename killed in
# the middle (the check names the hold it left and the rerun releases it).
# Usage: testing/live_rename_test.sh BUILD_DIR [ROUNDS [RECORDS]]
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd -P)
[ "${MXKEEP_SANDBOX:-}" = 1 ] || exec "$here/sandbox.sh" "$here/live_rename_test.sh" "$@"
build=$1 rounds=${2:-3} records=${3:-100000}
. "$here/mail_flow.sh"
. "$here/checks.sh"
trap mail_flow_stop EXIT

fates_hold() {  # fates_hold ROUND OLD NEW [held]: the round's fates break no rule
  if mail_flow_violations "$1" "$2" "$3" other.example ${4:-}; then echo "ok: $1: every message where it belongs"
  else fail "$1: messages out of place (above)"; fi
}
names=/var/qmail/mailnames tool=/usr/sbin/mxkeep_domain_rename

cmake --install "$build" --prefix /usr >/dev/null || exit 1
mail_flow_stream_layer "$build" example.org other.example "$records" || exit 1
mail_flow_start >/dev/null || exit 1

# Rounds in turn from one name to the other, each under its own stream.
old=example.org new=example.net
for ((r = 1; r <= rounds; r++)); do
  printf 'round %s: %s => %s: ' $r $old $new
  mail_flow_live_round "r$r" $old $new other.example 90 9
  expect "r$r: rename exit status" "$mail_flow_rename_status" 0
  fates_hold "r$r" $old $new
  t=$old old=$new new=$t
done
expect "soft_bounce as before the renames" "$(postconf -n soft_bounce)" ""
expect "no hold left in the mail-names root" "$(ls $names | tr '\n' ' ')" "$old other.example "

# A late failure under the stream: the maps stay under the new name and the
# directory under the old one; mail to the new name waits in the queue,
# held off the directory that is not there, until the rerun moves it.
install -m 0644 "$build/test_plugins/failing.so" /usr/lib/zanth-9.0/domain_rename/
printf 'late failure: '
mail_flow_live_round f $old $new other.example 90 9
expect "late failure: exit status" "$mail_flow_rename_status" 1
fates_hold f $old $new held
expect "late failure: the new name's place is held" "$(stat -c '%U %a' $names/$new)" "root 0"
rm /usr/lib/zanth-9.0/domain_rename/failing.so
"$tool" $old $new > /dev/null 2>&1
expect "rerun exit status" "$?" 0
mail_flow_settle f || echo "mail still queued after the rerun" >&2
echo "after the rerun: $(mail_flow_account f $old $new other.example $new \
  "$mail_flow_rename_start" "$mail_flow_rename_end")"
fates_hold f $old $new
t=$old old=$new new=$t

# Killed in the middle (by a stand-in postmap at the vmailbox rebuild): the
# hold stays, the check names it and the command that releases it, mail to
# the new name meanwhile waits, and the rerun releases everything.
mv /usr/sbin/postmap /usr/sbin/postmap.real
printf '#!/bin/sh\n[ "$1" = hash:/var/spool/postfix/zanth/vmailbox ] && kill -KILL $PPID\nexec /usr/sbin/postmap.real "$@"\n' \
  > /usr/sbin/postmap
chmod 0755 /usr/sbin/postmap
"$tool" $old $new > /dev/null 2>&1
expect "killed rename" "$?" 137
mv /usr/sbin/postmap.real /usr/sbin/postmap
expect "killed: soft_bounce left on" "$(postconf -h soft_bounce)" yes
report=$(/usr/sbin/mxkeep_domain_check $new)
expect "killed: check exit status" "$?" 1
expect "killed: check names the hold" \
  "$(printf '%s\n' "$report" | grep -E '^(delivery|mail_directory|recovery):')" \
  "mail_directory: info: held: $names/$new (mail routed here waits in the queue until a rename moves the mail directory over the hold)
delivery: failure: held by a stopped rename of $old to $new: Postfix defers what it would bounce until the same rename runs again
recovery: mxkeep_domain_rename $old $new"
mail_flow_send waiting sender@other.example info@$new
mail_flow_wait waiting deferred > /dev/null || exit 1
expect "killed: mail to the new name not delivered meanwhile" "$(mail_flow_find waiting)" ""
"$tool" $old $new > /dev/null 2>&1
expect "rerun after the kill" "$?" 0
status=$(mail_flow_wait waiting) || exit 1
expect "waiting mail delivered by the rerun" "${status##*status=}" "sent (delivered to maildir)"
expect "delivered into the renamed mailbox" "$(mail_flow_find waiting | sed 's|/new/.*|/new|')" \
  "$names/$new/info/Maildir/new"
expect "rerun: soft_bounce as before" "$(postconf -n soft_bounce)" ""
expect "rerun: no hold record left" "$(ls /var/lib/zanth/mail/rename_hold 2>&1 >/dev/null | wc -l)" 1
/usr/sbin/mxkeep_domain_check $new > /dev/null
expect "rerun: the check finds every place agreeing" "$?" 0

checks_done "live rename test"
