#!/usr/bin/env bash
# Installs every Debian package that building, testing and the demo need;
# with the argument "fuzz", also the compiler of the fuzz targets.
# Idempotent and non-interactive; run as root on Debian 12.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libgtest-dev libgmock-dev
  libboost-filesystem-dev
  libsqlite3-dev sqlite3
  libidn-dev
  libmariadb-dev
  mariadb-server
  libssl-dev
  postfix
  util-linux
  rsyslog
  scdoc man-db
  debhelper dpkg-dev lintian
)
if [ "${1:-}" = fuzz ]; then
  packages+=(clang-16 libclang-rt-16-dev)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

export DEBIAN_FRONTEND=noninteractive
# Postfix is installed for postmap and for the demo's mail flow, which runs
# it inside the sandbox only: leave the host's mail configuration alone and
# never start a mail service here.
echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
# mariadb-server and rsyslog are for the tests and the demo only: they start
# their own server and log daemon inside the sandbox. Their packages would
# start a system service on installation;
# a temporary policy-rc.d refuses that (an existing one is left as it is).
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' > "$policy"
  chmod 0755 "$policy"
  trap 'rm -f "$policy"' EXIT
fi
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
