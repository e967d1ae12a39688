#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the fuzz targets and runs each for some seconds: fuzz.sh [seconds, 30] [target...]. New inputs go to
# build-fuzz/corpus/TARGET, crashes to build-fuzz/crashes; the committed corpora only seed. Fails when a target fails.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
seconds=${1:-30}
shift || true
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

if [ $# -eq 0 ]; then
  for source in fuzz/*.cpp; do set -- "$@" "$(basename "$source" .cpp)"; done
fi
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
mkdir -p build-fuzz/crashes
failed=()
for target in "$@"; do
  echo "== $target, $seconds s"
  mkdir -p "build-fuzz/corpus/$target"
  seeds=()
  if [ -d "fuzz/corpus/$target" ]; then seeds=("fuzz/corpus/$target"); fi
  "build-fuzz/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 -verbosity=0 \
    -print_final_stats=1 -artifact_prefix="build-fuzz/crashes/$target-" \
    "build-fuzz/corpus/$target" "${seeds[@]}" || failed+=("$target")
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "failed: ${failed[*]}"
  exit 1
fi
