#!/usr/bin/env bash
# End-to-end test: the installed tool renames a domain under a running
# Postfix, and mail keeps flowing. Installs the build with
# cmake --install --prefix /usr inside a sandbox, delivers a message to a
# mailbox of the old domain, renames the domain, delivers one to the same
# mailbox under the new name and checks that one to the old address now
# bounces back to its sender.
# Usage: testing/mail_flow_test.sh BUILD_DIR    (re-runs itself in a sandbox)
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd -P)
[ "${MXKEEP_SANDBOX:-}" = 1 ] || exec "$here/sandbox.sh" "$here/mail_flow_test.sh" "$@"
build=$1
. "$here/mail_flow.sh"
. "$here/checks.sh"
trap mail_flow_stop EXIT

cmake --install "$build" --prefix /usr >/dev/null || exit 1
maps=/var/spool/postfix/zanth names=/var/qmail/mailnames
printf 'example.org VIRTUAL\nother.example VIRTUAL\n' > $maps/virtual_domains
printf 'info@example.org info@example.org\nboss@other.example boss@other.example\n' > $maps/virtual
printf 'info@example.org example.org/info/Maildir/\nboss@other.example other.example/boss/Maildir/\n' > $maps/vmailbox
for m in virtual_domains virtual vmailbox; do postmap "hash:$maps/$m" && rm "$maps/$m" || exit 1; done
for box in example.org/info other.example/boss; do
  install -d -o root -g popuser -m 0750 "$names/${box%/*}"
  install -d -o popuser -g popuser -m 0700 "$names/$box" "$names/$box/Maildir" \
    "$names/$box/Maildir/new" "$names/$box/Maildir/cur" "$names/$box/Maildir/tmp"
done
"$build/mxkeep_demo_seed" || exit 1  # the authentication database, made by the library
install -d /var/lib/zanth/mail
printf 'example.org\nother.example\n' > /var/lib/zanth/mail/local_domains

mail_flow_start >/dev/null || exit 1
mail_flow_send before boss@other.example info@example.org
status=$(mail_flow_wait before) || exit 1
expect "delivered before the rename" "${status##*status=}" "sent (delivered to maildir)"
expect "in the old domain's Maildir" "$(mail_flow_find before | sed 's|/new/.*|/new|')" \
  "$names/example.org/info/Maildir/new"

/usr/sbin/mxkeep_domain_rename example.org bücher.example >/dev/null
expect "rename exit status" "$?" 0
expect "installed example plugin ran" "$(tr '\n' ' ' < /var/lib/zanth/mail/local_domains)" \
  "xn--bcher-kva.example other.example "

# No reload here: the tool has Postfix answer from the renamed maps at once.
mail_flow_send after-new boss@other.example info@xn--bcher-kva.example
status=$(mail_flow_wait after-new) || exit 1
expect "delivered to the new name" "${status##*status=}" "sent (delivered to maildir)"
expect "both messages in the renamed Maildir" \
  "$(mail_flow_find before | sed 's|/new/.*|/new|') $(mail_flow_find after-new | sed 's|/new/.*|/new|')" \
  "$names/xn--bcher-kva.example/info/Maildir/new $names/xn--bcher-kva.example/info/Maildir/new"

mail_flow_send after-old boss@other.example info@example.org
status=$(mail_flow_wait after-old) || exit 1
expect "old address bounced" "${status#*status=bounced }" \
  "(this host delivers no mail to other hosts)"
# The bounce notice quotes the original's headers, so it is found by its id.
expect "bounce notice back in the sender's Maildir" \
  "$(mail_flow_find after-old | sed 's|/new/.*|/new|')" "$names/other.example/boss/Maildir/new"

checks_done "mail flow test"
