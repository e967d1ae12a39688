#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the fuzz targets and runs each for some seconds, two at once: fuzz.sh [seconds, 30] [target...]. New inputs go
# to build-fuzz/corpus/TARGET, crashes and logs to build-fuzz/crashes; the committed corpora only seed. Ends with the
# executions and edges of each. Fails when a target fails.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

export seconds=${1:-30} root=$PWD
shift || true
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target fuzz -- --quiet
if [ $# -eq 0 ]; then mapfile -t targets < <(build-fuzz/fuzz/fuzz); else targets=("$@"); fi
mkdir -p build-fuzz/crashes

run() {
  local target=$1 new=$root/build-fuzz/corpus/$1 log=$root/build-fuzz/crashes/$1.log state=fine
  mkdir -p "$new"
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$root/build-fuzz/fuzz/fuzz" "$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=1024 -max_len=8192 \
    -print_final_stats=1 -artifact_prefix="$root/build-fuzz/crashes/$target-" \
    "$new" "$root/fuzz/corpus/$target" >"$log" 2>&1 || state="FAILED, see $log"
  printf '%-20s %12s %8s  %s\n' "$target" "$(grep -oP 'number_of_executed_units: *\K\d+' "$log" || echo -)" \
    "$(grep -oP 'cov: \K\d+' "$log" | tail -n 1)" "$state"
}
export -f run

echo "running ${#targets[@]} targets for $seconds s each"
table=$(printf '%s\n' "${targets[@]}" | xargs -P 2 -I {} bash -c 'run {}' | sort)
printf '%-20s %12s %8s\n%s\n' target executions edges "$table"
! grep -q FAILED <<<"$table"
