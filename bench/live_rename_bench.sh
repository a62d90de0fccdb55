#!/usr/bin/env bash
# Benchmark: renames on a live server, in rounds. Inside a sandbox, a real
# Postfix delivers a steady stream of numbered messages (COUNT over
# SECONDS per round, in turn to info@ of the old name, info@ of the new
# name and a control mailbox) while the installed tool renames the domain
# back and forth in maps of RECORDS records each. Prints per round the
# rename's exit status and time, every message's fate (home: in the
# domain's one mail directory or the control mailbox; stray; bounced;
# queued; missing), the share of new-name mail submitted after the rename
# that was delivered, the messages that broke a rule of a rename on a live
# server, and how long mail to the domain waited: from the first submission
# that was deferred to the last delivery of deferred mail, as a ratio to
# the rename's own time.
# Usage: bench/live_rename_bench.sh BUILD_DIR [ROUNDS [RECORDS [COUNT [SECONDS]]]]
#        (defaults 20 rounds, 300,000 records, 150 messages over 10 s)
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd -P)
[ "${MXKEEP_SANDBOX:-}" = 1 ] || exec "$here/../testing/sandbox.sh" "$here/live_rename_bench.sh" "$@"
build=$1 rounds=${2:-20} records=${3:-300000} count=${4:-150} seconds=${5:-10}
. "$here/../testing/mail_flow.sh"
trap mail_flow_stop EXIT

cmake --install "$build" --prefix /usr >/dev/null || exit 1
mail_flow_stream_layer "$build" example.org other.example "$records" || exit 1
mail_flow_start >/dev/null || exit 1

# waited ROUND - seconds from the first submission of the round's domain
# mail that Postfix deferred to the last delivery of such mail.
waited() {
  local dir=$mail_flow_stream_dir
  awk -v r="$1" '
    FILENAME ~ /\.sent$/ { if ($4 ~ /^info@/) submitted[$1] = $2; next }
    FILENAME ~ /\.times$/ { delivered[$1] = $2; next }
    match($0, / [0-9A-F]+: message-id=<[^>]*@demo>/) {
      split(substr($0, RSTART + 1, RLENGTH - 1), f, ": message-id=<"); sub(/@demo>/, "", f[2])
      if (index(f[2], r "-") == 1) num[f[1]] = substr(f[2], length(r) + 2)
      next
    }
    / status=(deferred|SOFTBOUNCE) / { split($6, q, ":"); if (q[1] in num) deferred[num[q[1]]] = 1 }
    END {
      first = 0; last = 0
      for (n in deferred) if (n in submitted) {
        if (first == 0 || submitted[n] < first) first = submitted[n]
        if (n in delivered && delivered[n] > last) last = delivered[n]
      }
      printf "%.2f", ((first > 0 && last > first) ? last - first : 0)
    }' "$dir/$1.sent" "$dir/$1.times" "$mail_flow_log"
}

printf '%-5s %-25s %4s %7s %5s %5s %7s %6s %7s %8s %6s %7s\n' round rename exit time home stray \
  bounced queued missing new-after broken waited
old=example.org new=example.net statuses=() broken_total=0 stray_total=0 lost_total=0 stuck_total=0
for ((r = 1; r <= rounds; r++)); do
  line=$(mail_flow_live_round "r$r" $old $new other.example "$count" "$seconds")
  status=${line#exit } status=${status%%,*}
  time=${line#*rename } time=${time%% s*}
  read -r _ home _ stray _ bounced _ queued _ missing <<< "${line#*s, }"
  dir=$mail_flow_stream_dir
  # Delivery time of each delivered message: its file's modification time.
  grep -r -m1 -l "^Message-ID: <r$r-" /var/qmail/mailnames 2>/dev/null | while read -r f; do
    n=$(sed -n "s/^Message-ID: <r$r-\([0-9]*\)@demo>.*/\1/p" "$f" | head -n 1)
    [ -n "$n" ] && printf '%s %s\n' "$n" "$(stat -c %.Y "$f")"
  done > "$dir/r$r.times"
  new_after=$(awk -v a="info@$new" '$2 == "after" && $3 == a { n++; if ($4 == "home") d++ }
    END { printf "%d%%", n ? 100 * d / n : 100 }' "$dir/r$r.fates")
  broken=$(mail_flow_violations "r$r" $old $new other.example | wc -l)
  wait_s=$(waited "r$r")
  ratio=$(awk -v w="$wait_s" -v t="$time" 'BEGIN { printf "%.2f", (t > 0 ? w / t : 0) }')
  printf '%-5s %-25s %4s %6ss %5s %5s %7s %6s %7s %8s %6s %6sx\n' "$r" "$old => $new" "$status" \
    "$time" "$home" "$stray" "$bounced" "$queued" "$missing" "$new_after" "$broken" "$ratio"
  statuses+=("$status")
  broken_total=$((broken_total + broken)) stray_total=$((stray_total + stray))
  lost_total=$((lost_total + missing)) stuck_total=$((stuck_total + queued))
  t=$old old=$new new=$t
done
zero=$(printf '%s\n' "${statuses[@]}" | grep -c '^0$')
echo "rename exit 0 in $zero/$rounds rounds; stray $stray_total, lost $lost_total, stuck $stuck_total, broken rules $broken_total"
[ "$zero" = "$rounds" ] && [ $((broken_total + stray_total + lost_total + stuck_total)) = 0 ]
