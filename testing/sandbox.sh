#!/usr/bin/env bash
# Runs one command inside a disposable sandbox of the fixed system paths the
# mail tools work at: a private mount namespace with fresh tmpfs over /var,
# /opt and /run, a private /dev, and overlays over /etc and /usr, so that accounts,
# configuration and programs can be added without touching the host.
# Everything vanishes when the command ends. /tmp stays the host's, so the
# checkout and build may live there; tests clean up what they make in it.
#
# Usage: testing/sandbox.sh COMMAND [ARG...]
#        testing/sandbox.sh --reset-layout   (inside: back to the fresh layout)
# Exit status: the command's; 77 when no sandbox can be made outside CI
# (CI=true turns that into a failure).
set -euo pipefail

fail_or_skip() {
  if [ "${CI:-}" = true ]; then
    echo "sandbox: $1" >&2
    exit 1
  fi
  echo "sandbox: skipped: $1" >&2
  exit 77
}

# The layout an installed system has. Also used by --reset-layout, which
# a test binary running many tests in one sandbox calls before each test.
make_layout() {
  mkdir -p /run/lock /var/spool /var/lib /var/log
  ln -sfn /run /var/run
  ln -sfn /run/lock /var/lock
  mkdir -p /var/lock/files
  mkdir -p /etc/postfix /etc/orb /opt/orb/handlers/info \
           /usr/lib/zanth-9.0/domain_rename /var/spool/postfix/zanth
  # Postfix's programs wait, in steps of 300 ms for up to about 2 s, while
  # main.cf is younger than a second or two; a sandbox's is written just now.
  if [ ! -f /etc/postfix/main.cf ]; then
    printf '# sandbox: postmap needs a main.cf\ncompatibility_level = 3.6\n' > /etc/postfix/main.cf
    touch -d '-1 hour' /etc/postfix/main.cf
  fi
  install -d -o popuser -g popuser -m 0751 /var/qmail /var/qmail/mailnames
}

if [ "${1:-}" = --reset-layout ]; then
  if [ "${MXKEEP_SANDBOX:-}" != 1 ] || [ "$(findmnt -n -o SOURCE /var)" != mxkeep-var ]; then
    echo "sandbox: --reset-layout works inside a sandbox only" >&2
    exit 2
  fi
  find /var /opt /etc/orb /usr/lib/zanth-9.0 -mindepth 1 -maxdepth 1 -exec rm -rf {} +
  # /run/mysqld holds the test database server a test binary starts once
  # for all its tests (testing/mariadb_server.h); it outlives the resets.
  find /run -mindepth 1 -maxdepth 1 ! -name .sandbox-layers ! -name mysqld -exec rm -rf {} +
  make_layout
  exit 0
fi

if [ "${1:-}" != --inside ]; then
  [ $# -gt 0 ] || { echo "usage: $0 COMMAND [ARG...]" >&2; exit 2; }
  if [ "${MXKEEP_SANDBOX:-}" = 1 ]; then
    exec "$@"
  fi
  [ "$(id -u)" = 0 ] || fail_or_skip "needs root for a private mount namespace"
  here=$(cd "$(dirname "$0")/.." && pwd -P)
  case "$here/" in
    /var/*|/opt/*|/run/*)
      echo "sandbox: the checkout $here lies under a directory the sandbox replaces; move it" >&2
      exit 1 ;;
  esac
  unshare --mount --propagation private true 2>/dev/null ||
    fail_or_skip "unshare --mount is not permitted here"
  exec unshare --mount --propagation private "$0" --inside "$@"
fi
shift

# From here on every mount is private to this namespace.
mount -t tmpfs -o mode=0755 mxkeep-sandbox /run
scratch=/run/.sandbox-layers
for d in etc usr; do
  mkdir -p "$scratch/$d-upper" "$scratch/$d-work"
  mount -t overlay "mxkeep-$d" \
    -o "lowerdir=/$d,upperdir=$scratch/$d-upper,workdir=$scratch/$d-work" "/$d" ||
    fail_or_skip "cannot mount an overlay over /$d"
done
for d in var opt; do
  mount -t tmpfs -o mode=0755 "mxkeep-$d" "/$d"
done
# A private /dev with the host's plain devices only, so that a log daemon
# started inside makes its /dev/log here and never on the host.
mkdir -p "$scratch/dev-host"
mount --bind /dev "$scratch/dev-host"
mount -t tmpfs -o mode=0755,nosuid mxkeep-dev /dev ||
  fail_or_skip "cannot mount a private /dev"
for n in null zero full random urandom tty; do
  [ -e "$scratch/dev-host/$n" ] || continue
  touch "/dev/$n"
  mount --bind "$scratch/dev-host/$n" "/dev/$n"
done
mkdir -p /dev/pts /dev/shm
[ -d "$scratch/dev-host/pts" ] && mount --bind "$scratch/dev-host/pts" /dev/pts
mount -t tmpfs -o mode=1777,nosuid,nodev mxkeep-shm /dev/shm
ln -s /proc/self/fd /dev/fd
ln -s /proc/self/fd/0 /dev/stdin
ln -s /proc/self/fd/1 /dev/stdout
ln -s /proc/self/fd/2 /dev/stderr
ln -s pts/ptmx /dev/ptmx
umount -l "$scratch/dev-host"

getent group postfix >/dev/null || groupadd -r postfix
getent passwd postfix >/dev/null ||
  useradd -r -g postfix -d /var/spool/postfix -s /usr/sbin/nologin postfix
getent group popuser >/dev/null || groupadd -r popuser
getent passwd popuser >/dev/null ||
  useradd -r -g popuser -d /var/qmail/mailnames -s /usr/sbin/nologin popuser
make_layout

export MXKEEP_SANDBOX=1
exec "$@"
