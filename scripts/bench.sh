#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the release preset and runs every benchmark; each prints ratios against a bare loop measured in the same run,
# or the instructions of a start, and fails when its bound is passed.
#   bench.sh [MIB]     MiB to move
#   bench.sh --peers   the command beside wget, aria2, lftp, tftp-hpa and atftp, which it installs: the table and
#                      the chart of docs/speed.md
#   bench.sh --kept    500 small files over one kept connection beside one connection each
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
if [ "${1:-}" = --peers ]; then
  scripts/setup.sh peers
  cmake --preset default >/dev/null
  cmake --build --preset default --target fetchrig_command
  exec /usr/bin/python3 -B bench/peers.py build/fetchrig --write
fi
scripts/setup.sh
cmake --preset default >/dev/null
if [ "${1:-}" = --kept ]; then
  cmake --build --preset default --target libfetchrig.so
  exec /usr/bin/python3 -B bench/kept.py build/libfetchrig.so
fi
cmake --build --preset default
status=0
for source in bench/*_bench.cpp; do
  name=$(basename "$source" .cpp)
  echo "== $name"
  "build/bench/$name" "$@" || status=1
done
exit $status
