#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Unpacks OpenSSL and GoogleTest for 32-bit ARM into build-sysroot/, which cmake/armhf.cmake uses. Debian's armhf and
# native packages cannot be installed side by side, and the machine's own list of architectures stays as it is: apt gets
# a directory of its own for package lists. Does nothing when the files are there.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
target=$top/build-sysroot
[ ! -e "$target/complete" ] || exit 0

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"
mkdir -p "$work"/{state/lists/partial,cache/archives/partial,packages}
: >"$work/status"
apt_armhf() {
  apt-get -qq -o APT::Architecture=armhf -o APT::Architectures::=armhf -o Dir::State="$work/state" \
    -o Dir::State::status="$work/status" -o Dir::Cache="$work/cache" -o APT::Sandbox::User=root "$@"
}

echo "Fetching OpenSSL and GoogleTest for armhf"
apt_armhf update 2>/dev/null || echo "Some package lists are missing; going on with the others"
(cd "$work/packages" && apt_armhf download libssl-dev libssl3 libgtest-dev libgmock-dev >/dev/null)
rm -rf "$target"
mkdir -p "$target"
for package in "$work"/packages/*.deb; do
  dpkg-deb -x "$package" "$target"
done
touch "$target/complete"
