#!/usr/bin/env bash
# Builds the Debian package from a copy of this tree (dpkg-buildpackage
# writes its results beside the source, so the copy keeps them inside
# build/package) and checks it with lintian. Prints the .deb's path last.
# Usage: scripts/package.sh   (run scripts/install-deps.sh first)
set -euo pipefail
cd "$(dirname "$0")/.."

out=build/package
rm -rf "$out"
mkdir -p "$out/src"
tar --exclude=./build --exclude=./.git --exclude='./obj-*' -cf - . | tar -xf - -C "$out/src"
export DEB_BUILD_OPTIONS="parallel=$(nproc) ${DEB_BUILD_OPTIONS:-}"
(cd "$out/src" && dpkg-buildpackage -us -uc -b >../build.log 2>&1) || {
  tail -n 40 "$out/build.log" >&2
  echo "package: dpkg-buildpackage failed; the whole log is $out/build.log" >&2
  exit 1
}
deb=$(ls "$out"/mxkeep-domain-rename_*.deb)
changes=$(ls "$out"/mxkeep-domain-rename_*.changes)
# lintian prints its findings; only errors fail the build.
lintian --fail-on error "$changes" >&2
echo "$deb"
