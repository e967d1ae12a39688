#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Downloads 1 MiB from atftpd at 20 ms of round trip, block by block and by windows, and fails when windows are not 8
# times as fast. The delay is that of scripts/delay_relay.py: the system's own (tc netem) is not in every kernel.
#   bench-tftp-window.sh [FETCHRIG [WINDOW]]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
command=$(realpath "${1:-build/fetchrig}") window=${2:-32}
if [ -z "${SERVED:-}" ]; then exec /usr/bin/python3 scripts/servers.py atftpd -- "$0" "$command" "$window"; fi

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
head -c 1048576 /dev/urandom >"$SERVED/file"
coproc relay { exec scripts/delay_relay.py "${TFTP#tftp://}" 10; }
read -r port <&"${relay[0]}"

# Milliseconds of a download: took_ms OPTION...
took_ms() {
  local begin_ns
  begin_ns=$(date +%s%N)
  "$command" get -q --timeout 5 "$@" -o "$place/got" "tftp://127.0.0.1:$port/file"
  cmp "$SERVED/file" "$place/got"
  echo $((($(date +%s%N) - begin_ns) / 1000000))
}
classic_ms=$(took_ms --classic)
windowed_ms=$(took_ms --tftp-window "$window")
echo "TFTP, 1 MiB at 20 ms: block by block $classic_ms ms, windows of $window blocks $windowed_ms ms:" \
  "$((classic_ms / windowed_ms)) times as fast"
[ $((classic_ms / windowed_ms)) -ge 8 ]
