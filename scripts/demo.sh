#!/usr/bin/env bash
# Moves files both ways over HTTP, HTTPS, FTP and TFTP with the fetchrig command, on real servers that it starts on
# loopback and stops again, and prints a table of what arrived. Installs and builds what is missing first. Works from
# any folder, as root or with sudo. The exit status is 0 when every file arrived unharmed.
#   demo.sh                  the table
#   demo.sh URL [option...]  fetches that URL into the current folder ("fetchrig get URL option...")
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$top/scripts/setup.sh"
(cd "$top" && cmake --preset default >/dev/null &&
  cmake --build --preset default --target fetchrig_command -j 2 -- --quiet | sed '/^ninja: no work to do/d')
fetchrig=$top/build/fetchrig
if [ $# -gt 0 ]; then exec "$fetchrig" get "$@"; fi

PATH=$PATH:/usr/sbin:/sbin
work=$(mktemp -d)
root=$work/root
servers=()
stop_servers() {
  if [ ${#servers[@]} -gt 0 ]; then
    kill "${servers[@]}" 2>/dev/null || true
    wait "${servers[@]}" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap stop_servers EXIT
trap 'exit 130' INT TERM

fail() {
  echo "demo.sh: $*" >&2
  exit 1
}

# A port that is free now: free_port tcp|udp
free_port() {
  /usr/bin/python3 -c '
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM if sys.argv[1] == "udp" else socket.SOCK_STREAM)
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])' "$1"
}

# Starts a server in the background, its words in a log: serve NAME COMMAND...
serve() {
  local log=$work/$1.log
  shift
  "$@" >"$log" 2>&1 &
  servers+=($!)
}

# Waits until a small file can be fetched from the server, 10 seconds at most: wait_for NAME URL [option...]
wait_for() {
  local name=$1
  shift
  for _ in $(seq 50); do
    if "$fetchrig" get --quiet --timeout 1 -o "$work/probe" "$@" 2>/dev/null; then return 0; fi
    sleep 0.2
  done
  cat "$work/$name.log" >&2
  fail "$name does not answer"
}

make_certificates() {
  mkdir "$work/ca"
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=Demonstration CA" \
    -keyout "$work/ca.key" -out "$work/ca/ca.pem" 2>/dev/null
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=127.0.0.1" \
    -keyout "$work/server.key" -out "$work/server.csr" 2>/dev/null
  openssl x509 -req -in "$work/server.csr" -CA "$work/ca/ca.pem" -CAkey "$work/ca.key" -CAcreateserial -days 2 \
    -extfile <(echo "subjectAltName=IP:127.0.0.1") -out "$work/server.pem" 2>/dev/null
  openssl rehash "$work/ca"
}

start_nginx() {
  http=$(free_port tcp)
  https=$(free_port tcp)
  cat >"$work/nginx.conf" <<CONF
daemon off;
master_process off;
pid $work/nginx.pid;
error_log stderr;
events { }
http {
  access_log off;
  client_max_body_size 0;
  client_body_temp_path $work/tmp-body;
  proxy_temp_path $work/tmp-proxy;
  fastcgi_temp_path $work/tmp-fastcgi;
  uwsgi_temp_path $work/tmp-uwsgi;
  scgi_temp_path $work/tmp-scgi;
  server {
    listen 127.0.0.1:$http;
    listen 127.0.0.1:$https ssl;
    ssl_certificate $work/server.pem;
    ssl_certificate_key $work/server.key;
    root $root;
    location /upload/ { dav_methods PUT; }
  }
}
CONF
  serve nginx nginx -p "$work" -c "$work/nginx.conf" -e stderr
}

start_vsftpd() {
  ftp=$(free_port tcp)
  cat >"$work/vsftpd.conf" <<CONF
listen=YES
background=NO
listen_address=127.0.0.1
listen_port=$ftp
anonymous_enable=YES
no_anon_password=YES
anon_root=$root
write_enable=YES
anon_upload_enable=YES
anon_world_readable_only=NO
run_as_launching_user=YES
seccomp_sandbox=NO
isolate=NO
isolate_network=NO
connect_from_port_20=NO
xferlog_enable=NO
secure_chroot_dir=$root
CONF
  serve vsftpd vsftpd "$work/vsftpd.conf"
}

# tftpd-hpa needs root; atftpd does not.
start_tftpd() {
  tftp=$(free_port udp)
  if [ "$(id -u)" -eq 0 ]; then
    serve tftpd in.tftpd --foreground -4 --address "127.0.0.1:$tftp" --create --permissive --secure "$root"
  else
    serve tftpd "$top/build-servers/usr/sbin/atftpd" --daemon --no-fork --bind-address=127.0.0.1 "--port=$tftp" \
      --logfile=- "$root"
  fi
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
  row "$name" download "$root/$file" "$work/$name-down" "$began" "$EPOCHREALTIME" "$status"
  began=$EPOCHREALTIME
  status=0
  "$fetchrig" put "$@" "$root/$file" "$base/upload/$name-up" || status=$?
  ended=$EPOCHREALTIME
  [ "$status" -ne 0 ] || await_size "$root/upload/$name-up" "$root/$file"
  row "$name" upload "$root/$file" "$root/upload/$name-up" "$began" "$ended" "$status"
}

# Some servers continue as another user.
chmod 755 "$work"
mkdir -p "$root/upload"
chmod 777 "$root/upload"
echo ready >"$root/probe"
head -c $((64 * 1024 * 1024)) /dev/urandom >"$root/large.bin"
head -c $((8 * 1024 * 1024)) /dev/urandom >"$root/small.bin"

make_certificates
start_nginx
start_vsftpd
start_tftpd
wait_for nginx "http://127.0.0.1:$http/probe"
wait_for vsftpd "ftp://127.0.0.1:$ftp/probe"
wait_for tftpd "tftp://127.0.0.1:$tftp/probe"

both_ways http "http://127.0.0.1:$http" large.bin
both_ways https "https://127.0.0.1:$https" large.bin --ca-dir "$work/ca"
both_ways ftp "ftp://127.0.0.1:$ftp" large.bin
both_ways tftp "tftp://127.0.0.1:$tftp" small.bin

printf '\n%-8s %-9s %12s %8s   %s\n' protocol direction bytes seconds digest
printf '%s\n' "${rows[@]}"
[ "$all_arrived" = yes ] || fail "not every file arrived unharmed"
