#!/usr/bin/env bash
# The Debian package's test: installs the built .deb inside a sandbox, runs
# a rename with the installed tool (so the installed example plugin must be
# where the tool looks), then removes and purges the package and checks that
# nothing it installed is left. The sandbox's /var starts empty, so dpkg gets
# a copy of the host's database; the host's own is only read.
# Usage: testing/package_test.sh DEB     Exit status 0 when every check holds.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd -P)

if [ "${MXKEEP_SANDBOX:-}" != 1 ]; then
  [ $# -eq 1 ] && [ -f "$1" ] || { echo "usage: $0 DEB" >&2; exit 2; }
  deb=$(realpath "$1")
  snapshot=$(mktemp -d)
  trap 'rm -rf "$snapshot"' EXIT
  cp -a /var/lib/dpkg "$snapshot/dpkg"
  "$here/sandbox.sh" "$here/package_test.sh" "$deb" "$snapshot/dpkg"
  exit $?
fi

deb=$1
package=mxkeep-domain-rename
. "$here/checks.sh"

rm -rf /var/lib/dpkg
cp -a "$2" /var/lib/dpkg
mkdir -p /var/log /var/cache/debconf
# The tmpfiles.d entry, run by the package's postinst, must make this again.
rmdir /var/lock/files

dpkg -i "$deb" >/run/dpkg-install.log 2>&1 || { cat /run/dpkg-install.log >&2; exit 1; }
dpkg-query -L "$package" | sort > /run/installed-list
check "installed status" bash -c "dpkg-query -W -f='\${Status}' $package | grep -qx 'install ok installed'"
for f in /usr/sbin/mxkeep_domain_rename \
         /usr/lib/zanth-9.0/domain_rename/domain_list_plugin.so \
         /usr/lib/tmpfiles.d/mxkeep.conf \
         /usr/share/man/man8/mxkeep_domain_rename.8.gz \
         /usr/share/doc/$package/copyright; do
  check "package lists and installs $f" bash -c "grep -qx '$f' /run/installed-list && [ -f '$f' ]"
done
check "postinst made the lock-file directory" test -d /var/lock/files
check "man finds the page" bash -c "[ \"\$(man -w mxkeep_domain_rename)\" = /usr/share/man/man8/mxkeep_domain_rename.8.gz ]"

# A rename with the installed files: the maps, a mail directory and the
# example plugin's domain list all follow.
maps=/var/spool/postfix/zanth
printf 'example.org VIRTUAL\nother.example VIRTUAL\n' > $maps/virtual_domains
printf 'info@example.org info@example.org\n' > $maps/virtual
printf 'info@example.org example.org/info/\n' > $maps/vmailbox
for m in virtual_domains virtual vmailbox; do postmap "hash:$maps/$m" && rm "$maps/$m"; done
install -d -o root -g popuser -m 0750 /var/qmail/mailnames/example.org
install -d -o popuser -g popuser -m 0700 /var/qmail/mailnames/example.org/info
"$here/../build/plain/mxkeep_demo_seed"  # the authentication database, made by the library
install -d /var/lib/zanth/mail
printf 'example.org\nother.example\n' > /var/lib/zanth/mail/local_domains
check "installed tool renames" /usr/sbin/mxkeep_domain_rename example.org example.net
check "virtual_domains renamed" bash -c \
  "[ \"\$(postmap -s hash:$maps/virtual_domains | sort)\" = \"\$(printf 'example.net\tVIRTUAL\nother.example\tVIRTUAL')\" ]"
check "vmailbox renamed" bash -c \
  "[ \"\$(postmap -s hash:$maps/vmailbox)\" = \"\$(printf 'info@example.net\texample.net/info/')\" ]"
check "mail directory renamed" test -d /var/qmail/mailnames/example.net/info
check "installed plugin ran" bash -c \
  "[ \"\$(cat /var/lib/zanth/mail/local_domains)\" = \"\$(printf 'example.net\nother.example')\" ]"

dpkg --remove "$package" >/run/dpkg-remove.log 2>&1 || { cat /run/dpkg-remove.log >&2; exit 1; }
dpkg --purge "$package" >>/run/dpkg-remove.log 2>&1 || { cat /run/dpkg-remove.log >&2; exit 1; }
check "package purged" bash -c "! dpkg-query -W -f='\${Status}' $package 2>/dev/null | grep -q installed"
left=0
while read -r f; do
  if [ -f "$f" ] || [ -L "$f" ]; then echo "left behind: $f" >&2; left=1; fi
done < /run/installed-list
check "nothing installed is left" test $left = 0

checks_done "package test"
