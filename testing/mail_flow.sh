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

# mail_flow_send ID FROM TO - submits a message whose Message-ID is <ID@demo>.
mail_flow_send() {
  printf 'From: %s\nTo: %s\nSubject: message %s\nMessage-ID: <%s@demo>\n\nThis is message %s.\n' \
    "$2" "$3" "$1" "$1" "$1" | sendmail -f "$2" "$3"
}

# mail_flow_wait ID [STATES] - waits (at most 60 s) until the message
# <ID@demo> has reached one of STATES (default "sent|bounced", the final
# ones), then prints its delivery line from the log with Postfix's reason.
mail_flow_wait() {
  local id=$1 states=${2:-sent|bounced} queue_id line tries=0
  while :; do
    queue_id=$(sed -n "s/.* \([0-9A-F]*\): message-id=<$id@demo>.*/\1/p" "$mail_flow_log" 2>/dev/null | head -n 1)
    if [ -n "$queue_id" ]; then
      line=$(grep -E " $queue_id: to=<.*status=($states)" "$mail_flow_log" | head -n 1)
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

# A stream of numbered messages through a live rename. A round sends
# COUNT messages over SECONDS, in turn to info@ of the old name, info@ of
# the new name and boss@ of a control domain, from sender@ of the control
# domain (where bounce notices land); Message-IDs are <ROUND-N@demo>.
# Each message is then accounted for by its number.

mail_flow_stream_dir=/run/mail-stream

# mail_flow_stream_layer BUILD OLD CONTROL RECORDS - the three maps with
# info@OLD, boss@ and sender@CONTROL and RECORDS filler records each (of
# domains nobody mails), compiled by postmap; the mailboxes; the
# authentication database and handlers through the demo seeder of BUILD
# (its domains are example.org and other.example).
mail_flow_stream_layer() {
  local build=$1 old=$2 control=$3 records=$4 maps=/var/spool/postfix/zanth names=/var/qmail/mailnames
  awk -v n="$records" -v o="$old" -v c="$control" -v m="$maps" 'BEGIN {
      vd = m "/virtual_domains"; v = m "/virtual"; vm = m "/vmailbox"
      print o " VIRTUAL" > vd; print c " VIRTUAL" > vd
      for (i = 0; i < n; i++) print "filler" i ".example VIRTUAL" > vd
      split("info@" o " boss@" c " sender@" c, boxes, " ")
      for (b = 1; b <= 3; b++) {
        split(boxes[b], part, "@")
        print boxes[b] " " boxes[b] > v
        print boxes[b] " " part[2] "/" part[1] "/Maildir/" > vm
      }
      for (i = 0; i < n; i++) {
        a = "x" i "@filler" int(i / 8) ".example"
        print a " " a > v
        print a " filler" int(i / 8) ".example/x" i "/Maildir/" > vm
      }
    }' || return 1
  local m box
  for m in virtual_domains virtual vmailbox; do
    postmap "hash:$maps/$m" && rm "$maps/$m" || return 1
  done
  for box in "$old/info" "$control/boss" "$control/sender"; do
    install -d -o root -g popuser -m 0750 "$names/${box%/*}"
    install -d -o popuser -g popuser -m 0700 "$names/$box" "$names/$box/Maildir" \
      "$names/$box/Maildir/new" "$names/$box/Maildir/cur" "$names/$box/Maildir/tmp"
  done
  "$build/mxkeep_demo_seed" >/dev/null || return 1
  install -d /var/lib/zanth/mail
  printf '%s\n%s\n' "$old" "$control" > /var/lib/zanth/mail/local_domains
}

# mail_flow_stream_start ROUND OLD NEW CONTROL COUNT SECONDS - sends the
# round's messages in the background, one every SECONDS/COUNT, and writes
# "N START END TO" per message (submission start and end, epoch seconds)
# to $mail_flow_stream_dir/ROUND.sent. mail_flow_stream_wait waits for it.
mail_flow_stream_start() {
  local round=$1 old=$2 new=$3 control=$4 count=$5 seconds=$6 dir=$mail_flow_stream_dir
  mkdir -p "$dir" && : > "$dir/$round.sent"
  (
    local n to start t0
    t0=$(date +%s.%N)
    for ((n = 1; n <= count; n++)); do
      case $((n % 3)) in 1) to=info@$old ;; 2) to=info@$new ;; 0) to=boss@$control ;; esac
      start=$(date +%s.%N)
      mail_flow_send "$round-$n" "sender@$control" "$to"
      printf '%s %s %s %s\n' "$n" "$start" "$(date +%s.%N)" "$to" >> "$dir/$round.sent"
      # Keep to the schedule: sleep until message n+1 is due.
      sleep "$(awk -v t0="$t0" -v n="$n" -v c="$count" -v s="$seconds" -v now="$(date +%s.%N)" \
        'BEGIN { d = t0 + n * s / c - now; printf "%.3f", (d > 0 ? d : 0) }')"
    done
  ) &
  mail_flow_stream_pid=$!
}

mail_flow_stream_wait() { wait "$mail_flow_stream_pid"; }

# mail_flow_settle ROUND [held] - flushes the queue and waits (at most 90 s)
# until none of the round's messages is still queued; "held": until every
# one still queued has been tried and deferred.
mail_flow_settle() {
  local round=$1 queues='"(maildrop|incoming|active|deferred|hold)"' tries=0
  [ "${2:-}" = held ] && queues='"(maildrop|incoming|active)"'
  postqueue -f >/dev/null 2>&1
  while [ -n "$(mail_flow_queued "$round" "$queues")" ]; do
    tries=$((tries + 1))
    [ $tries -lt 450 ] || return 1
    [ $((tries % 25)) -eq 0 ] && postqueue -f >/dev/null 2>&1
    sleep 0.2
  done
}

# mail_flow_queued ROUND [QUEUES] - the message numbers of the round still
# queued (in a queue whose quoted name matches the pattern QUEUES).
mail_flow_queued() {
  local ids
  ids=$(postqueue -j 2>/dev/null | grep -E "\"queue_name\": ${2:-\"[a-z]*\"}" |
    sed -n 's/.*"queue_id": "\([0-9A-F]*\)".*/\1/p')
  [ -n "$ids" ] || return 0
  awk -v r="$1" -v ids="$ids" '
    BEGIN { n = split(ids, q, "\n"); for (i = 1; i <= n; i++) queued[q[i]] = 1 }
    match($0, / [0-9A-F]+: message-id=<[^>]*@demo>/) {
      split(substr($0, RSTART + 1, RLENGTH - 1), f, ": message-id=<")
      sub(/@demo>/, "", f[2])
      if (index(f[2], r "-") == 1 && (f[1] in queued)) print substr(f[2], length(r) + 2)
    }' "$mail_flow_log"
}

# mail_flow_daemons - the pids of Postfix's running daemons, one a line.
mail_flow_daemons() {
  local master
  master=$(tr -d ' ' < /var/spool/postfix/pid/master.pid 2>/dev/null) || return 0
  ps -o pid= --ppid "$master" | tr -d ' '
}

# mail_flow_account ROUND OLD NEW CONTROL HOME START END - accounts for each
# message of the round by its number: where it was delivered (its home is
# the mailbox of its address under HOME, the name whose directory holds
# the domain's mail now, or boss@CONTROL), bounced (with Postfix's reason),
# still queued, or missing; and by when it was submitted against the
# rename's START and END (epoch seconds): before, during or after. A bounce
# decided by a daemon that ran before the rename began (ROUND.daemons)
# counts as before it: Postfix had not yet seen the rename. Writes
# "N PHASE TO FATE [REASON]" per message to $mail_flow_stream_dir/ROUND.fates
# and prints the round's counts. Delivered copies are found by their
# Message-ID outside the sender's mailbox, where bounce notices land.
mail_flow_account() {
  local round=$1 old=$2 new=$3 control=$4 home=$5 start=$6 end=$7 dir=$mail_flow_stream_dir
  grep -r -m1 -H "^Message-ID: <$round-[0-9]*@demo>" /var/qmail/mailnames 2>/dev/null |
    grep -v "^/var/qmail/mailnames/$control/sender/" > "$dir/$round.delivered"
  mail_flow_queued "$round" > "$dir/$round.queued"
  awk -v r="$round" -v old="$old" -v new="$new" -v control="$control" -v home="$home" \
      -v start="$start" -v end="$end" -v fates="$dir/$round.fates" '
    FILENAME ~ /\.sent$/ { to[$1] = $4; phase[$1] = $3 < start ? "before" : $2 > end ? "after" : "during"; next }
    FILENAME ~ /\.delivered$/ {
      n = $0; sub(/.*<[^-]*-/, "", n); sub(/@demo>.*/, "", n)
      path = $0; sub(/^\/var\/qmail\/mailnames\//, "", path); sub(/\/Maildir\/.*/, "", path)
      copies[n]++; where[n] = path; next
    }
    FILENAME ~ /\.queued$/ { queued[$1] = 1; next }
    FILENAME ~ /\.daemons$/ { daemon[$1] = 1; next }
    match($0, / [0-9A-F]+: message-id=<[^>]*@demo>/) {
      split(substr($0, RSTART + 1, RLENGTH - 1), f, ": message-id=<"); sub(/@demo>/, "", f[2])
      if (index(f[2], r "-") == 1) num[f[1]] = substr(f[2], length(r) + 2)
      next
    }
    match($0, / [0-9A-F]+: to=<[^>]*>.* status=bounced /) {
      split(substr($0, RSTART + 1), f, ":")
      if (f[1] in num) {
        n = num[f[1]]; reason[n] = $0; sub(/.* status=bounced /, "", reason[n])
        pid = $0; sub(/\]: [0-9A-F]+: to=.*/, "", pid); sub(/.*\[/, "", pid)
        if (pid in daemon) early[n] = 1
      }
    }
    END {
      for (n in to) {
        split(to[n], a, "@")
        want = (a[2] == control ? control : home) "/" a[1]
        if (copies[n] == 1 && where[n] == want) fate = "home"
        else if (copies[n] > 0) fate = "stray(" where[n] (copies[n] > 1 ? ",x" copies[n] : "") ")"
        else if (n in reason) fate = "bounced " reason[n]
        else if (n in queued) fate = "queued"
        else fate = "missing"
        if (n in early && phase[n] == "during" && fate ~ /^bounced/) phase[n] = "before"
        print n, phase[n], to[n], fate > fates
        split(fate, k, /[ (]/); count[k[1]]++
      }
      printf "home %d stray %d bounced %d queued %d missing %d\n", count["home"], count["stray"],
        count["bounced"], count["queued"], count["missing"]
    }' "$dir/$round.sent" "$dir/$round.delivered" "$dir/$round.queued" "$dir/$round.daemons" \
    "$mail_flow_log"
  sort -n -o "$dir/$round.fates" "$dir/$round.fates"
}

# mail_flow_violations ROUND OLD NEW CONTROL [held] - prints each message
# whose fate a rename on a live server must not give it, and returns
# non-zero when there is one. Nothing stray, missing or (unless held)
# queued; mail to the control mailbox and to the old name submitted before
# the rename delivered; mail to the new name delivered once the rename has
# begun; a bounce only for the old name from the rename on, or the new name
# before it. "held": after a late failure, mail to the new name from the
# rename on waits in the queue instead.
mail_flow_violations() {
  awk -v old="$2" -v new="$3" -v control="$4" -v held="${5:-}" '
    { ok = 0
      if ($4 == "home") ok = !(held && $3 == "info@" new && $2 != "before")
      else if ($4 == "bounced") ok = ($3 == "info@" old && $2 != "before") || ($3 == "info@" new && $2 == "before")
      else if ($4 == "queued") ok = held && $3 == "info@" new && $2 != "before"
      if (!ok) { print "  unexpected: " $0; bad++ } }
    END { exit bad > 0 }' "$mail_flow_stream_dir/$1.fates"
}

# mail_flow_live_round ROUND OLD NEW CONTROL COUNT SECONDS [AS] - one round:
# the stream of COUNT messages over SECONDS with mxkeep_domain_rename OLD NEW
# (NEW given to the tool as AS, such as its Unicode form) started a third of
# the way in; then the queue is flushed and settled (after
# a failed rename: until what waits has been tried) and every message
# accounted for. Sets mail_flow_rename_status,
# mail_flow_rename_start, mail_flow_rename_end (epoch seconds) and
# mail_flow_rename_seconds; prints "exit E, rename S s, <counts>".
mail_flow_live_round() {
  local round=$1 old=$2 new=$3 control=$4 count=$5 seconds=$6 start end home held
  local as=${7:-$new}
  mail_flow_stream_start "$round" "$old" "$new" "$control" "$count" "$seconds"
  sleep "$(awk -v s="$seconds" 'BEGIN { print s / 3 }')"
  mail_flow_daemons > "$mail_flow_stream_dir/$round.daemons"
  start=$(date +%s.%N)
  /usr/sbin/mxkeep_domain_rename "$old" "$as" > "$mail_flow_stream_dir/$round.out" 2>&1
  mail_flow_rename_status=$?
  end=$(date +%s.%N)
  mail_flow_rename_start=$start mail_flow_rename_end=$end
  mail_flow_stream_wait
  home=$new held=
  [ "$mail_flow_rename_status" = 0 ] || home=$old held=held
  mail_flow_settle "$round" $held || echo "mail_flow: round $round: mail still queued after 90 s" >&2
  mail_flow_rename_seconds=$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.2f", b - a }')
  printf 'exit %s, rename %s s, %s\n' "$mail_flow_rename_status" "$mail_flow_rename_seconds" \
    "$(mail_flow_account "$round" "$old" "$new" "$control" "$home" "$start" "$end")"
}
