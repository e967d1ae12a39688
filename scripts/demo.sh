#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Moves files both ways over HTTP, HTTPS, FTP and TFTP with the fetchrig command, on real servers that it starts on
# loopback and stops again, and prints a table of what arrived. Installs and builds what is missing first. Works from
# any folder, as root or with sudo. The exit status is 0 when every file arrived unharmed.
#   demo.sh                  the table
#   demo.sh URL [option...]  fetches that URL into the current folder ("fetchrig get URL option...")
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
fetchrig=$top/build/fetchrig
if [ -z "${SERVED:-}" ]; then
  "$top/scripts/setup.sh" demo
  # Without tests, unless this folder was configured with them before.
  [ -e "$top/build/build.ninja" ] ||
    (cd "$top" && cmake --preset default -DFETCHRIG_TESTS=OFF -DFETCHRIG_BENCH=OFF >/dev/null)
  (cd "$top" &&
    cmake --build --preset default --target fetchrig_command -j 2 -- --quiet | sed '/^ninja: no work to do/d')
  if [ $# -gt 0 ]; then exec "$fetchrig" get "$@"; fi
  # Once more, as the command that the servers run for. tftpd-hpa needs root.
  tftp_server=tftpd
  [ "$(id -u)" -eq 0 ] || tftp_server=atftpd
  exec /usr/bin/python3 -B "$top/scripts/servers.py" nginx vsftpd "$tftp_server" -- "$top/scripts/demo.sh"
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM

fail() {
  echo "demo.sh: $*" >&2
  exit 1
}

# A TFTP server may acknowledge the last block before it has written it: waits until a file is as large as another,
# 5 seconds at most.
await_size() {
  for _ in $(seq 50); do
    [ "$(stat -c %s "$1" 2>/dev/null)" != "$(stat -c %s "$2")" ] || return 0
    sleep 0.1
  done
}

rows=()
all_arrived=yes
# Notes a transfer: row PROTOCOL DIRECTION ORIGINAL ARRIVED BEGAN ENDED STATUS
row() {
  local verdict=ok bytes=0
  [ ! -f "$4" ] || bytes=$(stat -c %s "$4")
  if [ "$7" -ne 0 ]; then verdict=FAILED
  elif ! cmp -s <(sha256sum <"$3") <(sha256sum <"$4"); then verdict=DIFFERS
  fi
  [ "$verdict" = ok ] || all_arrived=no
  rows+=("$(printf '%-8s %-9s %12d %8.2f   %s' "$1" "$2" "$bytes" "$(now_minus "$6" "$5")" "$verdict")")
}

now_minus() {
  awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a - b }'
}

# Both ways over one protocol: both_ways NAME BASE-URL FILE [option...]
both_ways() {
  local name=$1 base=$2 file=$3 began ended status
  shift 3
  echo "$name: $base"
  began=$EPOCHREALTIME
  status=0
  "$fetchrig" get "$@" -o "$work/$name-down" "$base/$file" || status=$?
  row "$name" download "$SERVED/$file" "$work/$name-down" "$began" "$EPOCHREALTIME" "$status"
  began=$EPOCHREALTIME
  status=0
  "$fetchrig" put "$@" "$SERVED/$file" "$base/upload/$name-up" || status=$?
  ended=$EPOCHREALTIME
  [ "$status" -ne 0 ] || await_size "$SERVED/upload/$name-up" "$SERVED/$file"
  row "$name" upload "$SERVED/$file" "$SERVED/upload/$name-up" "$began" "$ended" "$status"
}

head -c $((64 * 1024 * 1024)) /dev/urandom >"$SERVED/large.bin"
head -c $((8 * 1024 * 1024)) /dev/urandom >"$SERVED/small.bin"

both_ways http "$HTTP" large.bin
both_ways https "$HTTPS" large.bin --ca-dir "$CA_DIR"
both_ways ftp "$FTP" large.bin
both_ways tftp "$TFTP" small.bin

printf '\n%-8s %-9s %12s %8s   %s\n' protocol direction bytes seconds digest
printf '%s\n' "${rows[@]}"
[ "$all_arrived" = yes ] || fail "not every file arrived unharmed"
