#!/usr/bin/env bash
# Installs what is needed, builds the tool, and shows it at work: inside a
# disposable sandbox it installs the tool, lays out a small sample mail
# layer at the fixed paths and renames a domain in it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build/plain >/dev/null
cmake --build build/plain -j"$(nproc)" >/dev/null
exec testing/sandbox.sh scripts/demo-inside.sh build/plain
