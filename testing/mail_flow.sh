# Shell functions that run a real Postfix inside a sandbox (testing/sandbox.sh)
# and follow messages through it: local submission with sendmail, pickup,
# cleanup, qmgr and virtual delivery through the three maps the rename tool
# keeps, into the Maildirs under the mail-names root. No network service is
# configured and the log goes to a file. Sourced by the demo and the mail
# flow test; a function that fails prints why and returns non-zero.

mail_flow_log=/var/log/postfix.log

# mail_flow_start - writes main.cf and master.cf into the sandbox's /etc
# overlay and starts Postfix. Mail for domains outside the maps bounces.
mail_flow_start() {
  [ "${MXKEEP_SANDBOX:-}" = 1 ] || { echo "mail_flow: not inside a sandbox" >&2; return 1; }
  local uid gid maps=/var/spool/postfix/zanth
  uid=$(id -u popuser) gid=$(id -g popuser)
  cat > /etc/postfix/main.cf <<CF
compatibility_level = 3.6
myhostname = mail.sandbox.test
mydestination = \$myhostname, localhost
inet_interfaces = loopback-only
inet_protocols = ipv4
maillog_file = $mail_flow_log
alias_maps =
alias_database =
virtual_mailbox_domains = hash:$maps/virtual_domains
virtual_alias_maps = hash:$maps/virtual
virtual_mailbox_maps = hash:$maps/vmailbox
virtual_mailbox_base = /var/qmail/mailnames
virtual_uid_maps = static:$uid
virtual_gid_maps = static:$gid
virtual_minimum_uid = $uid
default_transport = error:this host delivers no mail to other hosts
relay_transport = error:this host delivers no mail to other hosts
CF
  # Postfix's programs wait while main.cf is younger than a second or two.
  touch -d '-1 hour' /etc/postfix/main.cf
  # Only the services local submission and delivery need: no smtpd, no
  # listener on any network, nothing run in a chroot.
  cat > /etc/postfix/master.cf <<'CF'
pickup    unix  n       -       n       60      1       pickup
cleanup   unix  n       -       n       -       0       cleanup
qmgr      unix  n       -       n       300     1       qmgr
rewrite   unix  -       -       n       -       -       trivial-rewrite
bounce    unix  -       -       n       -       0       bounce
defer     unix  -       -       n       -       0       bounce
trace     unix  -       -       n       -       0       bounce
verify    unix  -       -       n       -       1       verify
flush     unix  n       -       n       1000?   0       flush
proxymap  unix  -       -       n       -       -       proxymap
error     unix  -       -       n       -       -       error
retry     unix  -       -       n       -       -       error
discard   unix  -       -       n       -       -       discard
virtual   unix  -       n       n       -       -       virtual
anvil     unix  -       -       n       -       1       anvil
scache    unix  -       -       n       -       1       scache
postlog   unix-dgram n  -       n       -       1       postlogd
showq     unix  n       -       n       -       -       showq
CF
  install -d -o postfix -g postfix /var/lib/postfix
  postfix start 2>&1 || return 1
}

# mail_flow_stop - stops Postfix; safe when it is not running.
mail_flow_stop() {
  postfix status >/dev/null 2>&1 && postfix stop >/dev/null 2>&1
  return 0
}

# mail_flow_reload - makes Postfix reopen its maps now and waits until the
# master has taken the reload. Its daemons would notice the rebuilt maps by
# themselves, but only one by one over the next minute: a daemon holding a
# map open can answer from it meanwhile.
mail_flow_reload() {
  local before tries=0
  before=$(grep -c 'reload -- version' "$mail_flow_log")
  postfix reload >/dev/null 2>&1 || return 1
  until [ "$(grep -c 'reload -- version' "$mail_flow_log")" -gt "$before" ]; do
    tries=$((tries + 1))
    [ $tries -lt 150 ] || { echo "mail_flow: postfix did not reload" >&2; return 1; }
    sleep 0.2
  done
}

# mail_flow_send ID FROM TO - submits a message whose Message-ID is <ID@demo>.
mail_flow_send() {
  printf 'From: %s\nTo: %s\nSubject: message %s\nMessage-ID: <%s@demo>\n\nThis is message %s.\n' \
    "$2" "$3" "$1" "$1" "$1" | sendmail -f "$2" "$3"
}

# mail_flow_wait ID - waits (at most 60 s) until the message <ID@demo> has
# reached a final state, then prints its delivery line from the log:
# status=sent or status=bounced, with Postfix's reason.
mail_flow_wait() {
  local id=$1 queue_id line tries=0
  while :; do
    queue_id=$(sed -n "s/.* \([0-9A-F]*\): message-id=<$id@demo>.*/\1/p" "$mail_flow_log" 2>/dev/null | head -n 1)
    if [ -n "$queue_id" ]; then
      line=$(grep -E " $queue_id: to=<.*status=(sent|bounced)" "$mail_flow_log" | head -n 1)
      if [ -n "$line" ]; then
        printf '%s\n' "${line#* $queue_id: }"
        return 0
      fi
    fi
    tries=$((tries + 1))
    [ $tries -lt 300 ] || { echo "mail_flow: message $id not delivered after 60 s" >&2; return 1; }
    sleep 0.2
  done
}

# mail_flow_find ID - prints the path of the delivered file holding <ID@demo>.
mail_flow_find() {
  grep -rl --include='*' -e "^Message-ID: <$1@demo>" /var/qmail/mailnames 2>/dev/null | grep '/Maildir/new/' || true
}
