#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the release preset and runs every benchmark; each prints ratios against a bare loop measured in the same run,
# or the instructions of a start, and fails when its bound is passed. Arguments go to each program (MiB to move).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default
status=0
for source in bench/*_bench.cpp; do
  name=$(basename "$source" .cpp)
  echo "== $name"
  "build/bench/$name" "$@" || status=1
done
exit $status
