#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Moves files both ways over HTTP, HTTPS, FTP and TFTP with the fetchrig command, on real servers that it starts on
# loopback and stops again, and prints a table of what arrived. Installs and builds what is missing first. Works from
# any folder, as root or with sudo. The exit status is 0 when every file arrived unharmed.
#   demo.sh                  the table
#   demo.sh --keep           leaves the servers running, and prints lines to type and how to stop them
#   demo.sh URL [option...]  fetches that URL into the current folder ("fetchrig get URL option...")
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly fetchrig=$top/build/fetchrig names=$top/build/demo.env log=$top/build/demo.log
readonly kept_s=86400

say() {
  echo "== $*"
}

fail() {
  echo "demo.sh: $*" >&2
  exit 1
}

build() {
  say "Looking for missing packages; installing them takes about a minute"
  "$top/scripts/setup.sh" demo
  cd "$top"
  # Without tests, unless this folder was configured with them before.
  if [ ! -e build/build.ninja ]; then
    say "Configuring, about 5 seconds"
    cmake --preset default -DFETCHRIG_TESTS=OFF -DFETCHRIG_BENCH=OFF >/dev/null
  fi
  say "Building the library and the command: about 3 minutes the first time, a second later on"
  cmake --build --preset default --target fetchrig_command -j 2 -- --quiet 2>&1 |
    sed '/^ninja: no work to do/d; /^-- /d'
  cd "$OLDPWD"
}

stop_servers() {
  { kill "$servers" && wait "$servers"; } 2>/dev/null || true
  rm -f "$names"
}

# The servers run for a command that writes their names down and waits; with it they end.
start_servers() {
  local tftp_server=tftpd
  [ "$(id -u)" -eq 0 ] || tftp_server=atftpd # tftpd-hpa needs root
  say "Starting nginx, vsftpd and $tftp_server on loopback, about 2 seconds"
  rm -f "$names"
  # shellcheck disable=SC2016 # for the inner shell
  setsid /usr/bin/python3 -B "$top/scripts/servers.py" nginx vsftpd "$tftp_server" -- bash -c '
    for name in HTTP HTTPS FTP TFTP CA_DIR SERVED; do echo "export $name=${!name}"; done >"$1.new"
    echo "export DEMO_PID=$PPID" >>"$1.new"
    mv "$1.new" "$1"
    exec sleep "$2"' names "$names" "$kept_s" </dev/null >"$log" 2>&1 &
  servers=$!
  trap stop_servers EXIT
  trap 'exit 130' INT TERM
  until [ -e "$names" ]; do
    kill -0 "$servers" 2>/dev/null || fail "the servers do not start: $(cat "$log")"
    sleep 0.1
  done
  . "$names"
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
  say "$name: $base, $file down and up, a second or two"
  began=$EPOCHREALTIME
  status=0
  "$fetchrig" get "$@" -o "$work/$name-down" "$base/$file" || status=$?
  row "$name" download "$SERVED/$file" "$work/$name-down" "$began" "$EPOCHREALTIME" "$status"
  rm -f "$work/$name-down"
  began=$EPOCHREALTIME
  status=0
  "$fetchrig" put "$@" "$SERVED/$file" "$base/upload/$name-up" || status=$?
  ended=$EPOCHREALTIME
  [ "$status" -ne 0 ] || await_size "$SERVED/upload/$name-up" "$SERVED/$file"
  row "$name" upload "$SERVED/$file" "$SERVED/upload/$name-up" "$began" "$ended" "$status"
}

demonstrate() {
  head -c $((64 * 1024 * 1024)) /dev/urandom >"$SERVED/large.bin"
  head -c $((8 * 1024 * 1024)) /dev/urandom >"$SERVED/small.bin"
  echo "Hello from the demonstration" >"$SERVED/hello.txt"
  both_ways http "$HTTP" large.bin
  both_ways https "$HTTPS" large.bin --ca-dir "$CA_DIR"
  both_ways ftp "$FTP" large.bin
  both_ways tftp "$TFTP" small.bin
  printf '\n%-8s %-9s %12s %8s   %s\n' protocol direction bytes seconds digest
  printf '%s\n' "${rows[@]}"
  [ "$all_arrived" = yes ] || fail "not every file arrived unharmed"
}

keep_servers() {
  cat <<END

The servers go on for a day, or until: kill $DEMO_PID
Lines to type, from $top:
  . build/demo.env
  build/fetchrig get \$HTTP/small.bin
  build/fetchrig get --ca-dir \$CA_DIR \$HTTPS/large.bin
  date | build/fetchrig put - \$FTP/upload/date
  build/fetchrig get -o - \$TFTP/upload/date
END
  trap - EXIT
}

keep=no
case "${1:-}" in
  --keep) keep=yes; [ $# -eq 1 ] || fail "--keep stands alone" ;;
  --help | -h) sed -n '3,9s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"; exit 0 ;;
esac
build
if [ "$keep" = no ] && [ $# -gt 0 ]; then exec "$fetchrig" get "$@"; fi
start_servers
work=$(mktemp -d)
trap 'rm -rf "$work"; stop_servers' EXIT
demonstrate
rm -rf "$work"
[ "$keep" = no ] || keep_servers
