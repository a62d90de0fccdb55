#!/usr/bin/env bash
# A real log daemon (rsyslog) inside the sandbox, for the tests and the
# demo: it listens on /dev/log (the sandbox's private /dev) and writes the
# mail facility to /var/log/mail.log, one line per message:
#   <priority> <tag>: <text>
# for example "notice mxkeep_domain_rename[4242]: rename started old=...".
#
# Usage: syslog_daemon.sh start        starts it; returns once it logs
#        syslog_daemon.sh stop         stops it and removes /dev/log
#        syslog_daemon.sh wait TEXT    waits until a line holds TEXT
# Exit status 0, or 1 with a message when the daemon does not answer
# within 10 s.
set -euo pipefail

[ "${MXKEEP_SANDBOX:-}" = 1 ] || { echo "syslog_daemon: run me inside testing/sandbox.sh" >&2; exit 2; }
log=/var/log/mail.log
conf=/run/rsyslog.conf
pidfile=/run/rsyslogd.pid

# wait_for TEXT: polls the log file; the daemon writes asynchronously.
wait_for() {
  for _ in $(seq 200); do
    grep -qF -- "$1" "$log" 2>/dev/null && return 0
    sleep 0.05
  done
  echo "syslog_daemon: no line with '$1' in $log" >&2
  return 1
}

case "${1:-}" in
  start)
    mkdir -p /run/rsyslog /var/log
    cat > "$conf" <<'CONF'
global(workDirectory="/run/rsyslog")
module(load="imuxsock" SysSock.Name="/dev/log" SysSock.RateLimit.Interval="0")
template(name="trail" type="string"
         string="%syslogseverity-text% %syslogtag%%msg:::drop-last-lf%\n")
mail.* action(type="omfile" file="/var/log/mail.log" template="trail")
CONF
    rsyslogd -f "$conf" -i "$pidfile"
    marker="syslog-daemon-ready-$$"
    for _ in $(seq 200); do
      [ -S /dev/log ] && logger -u /dev/log -p mail.info "$marker" 2>/dev/null && break
      sleep 0.05
    done
    wait_for "$marker"
    ;;
  stop)
    if [ -f "$pidfile" ]; then
      pid=$(cat "$pidfile")
      kill "$pid" 2>/dev/null || true
      while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
    fi
    rm -f /dev/log "$pidfile"
    ;;
  wait)
    wait_for "$2"
    ;;
  *)
    echo "usage: $0 start|stop|wait TEXT" >&2
    exit 2
    ;;
esac
