#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs what is missing, from Debian's packages. Works as root or with sudo, as often as you like. Servers are
# installed without being started.
#   setup.sh demo       what building the library and the command and the demonstration need
#   setup.sh [test]     ... and what scripts/test.sh needs
#   setup.sh release    ... and what scripts/release.sh needs
#   setup.sh peers      what the demonstration and scripts/bench.sh --peers need
set -euo pipefail

demo=(
  g++ cmake ninja-build pkg-config
  libssl-dev openssl ca-certificates
  libcli11-dev nlohmann-json3-dev
  nginx vsftpd tftpd-hpa libpcre3 libwrap0
  python3
)
tests=(
  git libgtest-dev libbenchmark-dev
  clang clang-format clang-tidy libclang-rt-14-dev cppcheck dwarves reuse
  apache2-bin lighttpd squid tinyproxy-bin python3-pyftpdlib libsodium23
  python3-pytest python3-pexpect valgrind gcovr doxygen
  gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user-static
)
release=(debhelper dpkg-dev fakeroot lintian mmdebstrap faketime)
peers=(wget aria2 lftp tftp-hpa atftp strace gnuplot-nox)

case "${1:-test}" in
  demo) packages=("${demo[@]}") ;;
  test) packages=("${demo[@]}" "${tests[@]}") ;;
  release) packages=("${demo[@]}" "${tests[@]}" "${release[@]}") ;;
  peers) packages=("${demo[@]}" "${peers[@]}") ;;
  *) sed -n '3,8s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"; exit 2 ;;
esac

installed=$(dpkg-query -W -f='${Package} ${Status}\n' "${packages[@]}" 2>/dev/null |
  sed -n 's/ .*ok installed$//p') || true
missing=()
for package in "${packages[@]}"; do
  grep -qxF "$package" <<<"$installed" || missing+=("$package")
done

as_root=()
if [ "$(id -u)" -ne 0 ]; then as_root=(sudo); fi
if [ ${#missing[@]} -gt 0 ] && [ ${#as_root[@]} -gt 0 ] && ! { command -v sudo && sudo -v; } >/dev/null; then
  echo "Packages are missing, and this user may not install them. An administrator may run:" >&2
  echo "  apt-get install ${missing[*]}" >&2
  exit 1
fi

# Packages that cannot be installed beside others are unpacked into build-servers/ instead: atftpd excludes tftpd-hpa,
# pure-ftpd vsftpd.
unpack_servers() {
  local target
  target=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build-servers
  [ ! -x "$target/usr/sbin/atftpd" ] || [ ! -x "$target/usr/bin/pure-pw" ] || return 0
  mkdir -p "$target"
  local download
  download=$(mktemp -d)
  chmod 755 "$download"
  (
    cd "$download" && apt-get download -qq atftpd pure-ftpd pure-ftpd-common >/dev/null 2>&1 || exit 1
    for package in *.deb; do dpkg-deb -x "$package" "$target"; done
  )
  rm -rf "$download"
}

if [ ${#missing[@]} -eq 0 ]; then
  unpack_servers
  exit 0
fi

# While the packages are configured, services must not start: the tests start servers of their own on free ports.
policy=/usr/sbin/policy-rc.d
placed_policy=no
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
  "${as_root[@]}" chmod +x "$policy"
  placed_policy=yes
fi
trap '[ "$placed_policy" = no ] || "${as_root[@]}" rm -f "$policy"' EXIT

echo "Installing: ${missing[*]}"
"${as_root[@]}" apt-get update -qq || echo "Some package lists are missing; going on with the others"
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
  "${missing[@]}" >/dev/null
unpack_servers
