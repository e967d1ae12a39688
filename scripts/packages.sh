#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes the source archive of the last commit and the Debian packages of it, looks at them with lintian, and uses them
# in a clean Debian: they are installed, fetch a file, and are removed without leaving anything.
#   packages.sh DIR           all of it, into that new folder
#   packages.sh --build DIR   without looking at them
#   packages.sh --check DIR   looks at those that are in that folder
set -euo pipefail
umask 022
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

build=yes
check=yes
case "${1:-}" in
  --build) check=no; shift ;;
  --check) build=no; shift ;;
esac
[ $# -eq 1 ] && { [ "$build" = no ] || mkdir "$1"; } || { sed -n '3,7s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"; exit 2; }
out=$(cd "$1" && pwd)
work=$(mktemp -d)
chmod 755 "$work"
trap 'rm -rf --one-file-system "$work"' EXIT
version=$(sed -n 's/^#define FETCHRIG_VERSION "\(.*\)"/\1/p' "$top/include/fetchrig_types.h")

make_source() {
  git -C "$top" archive --prefix="libfetchrig-$version/" HEAD | xz -T1 >"$out/libfetchrig-$version.tar.xz"
}

# Debian's files live in packaging/debian, so that the archive is nobody's package; the build wants them on top.
build_packages() {
  local tree=$work/libfetchrig-$version
  cp "$out/libfetchrig-$version.tar.xz" "$work/libfetchrig_$version.orig.tar.xz"
  tar -C "$work" -xf "$out/libfetchrig-$version.tar.xz"
  cp -r "$tree/packaging/debian" "$tree/debian"
  (cd "$tree" && dpkg-buildpackage -us -uc -j2) >"$work/log" 2>&1 || { tail -n 40 "$work/log"; return 1; }
  cp "$work"/libfetchrig_* "$work"/*.deb "$tree"/obj-*/fetchrig.cdx.json "$out"
}

# The files of the clean system, but for what dpkg and ldconfig keep for themselves.
list_files() {
  (cd "$root" && find . -xdev \( -path ./var/lib/dpkg -o -path ./var/cache -o -path ./var/log -o -path ./tmp \) -prune \
    -o ! -path ./etc/ld.so.cache -print) | LC_ALL=C sort
}

in_root() {
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive chroot "$root" "$@"
}

use_packages() {
  root=$work/root
  local suite
  suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
  if [ "$(id -u)" -ne 0 ] || ! mmdebstrap --quiet --variant=apt --dpkgopt=force-unsafe-io \
    --include=gcc,libc6-dev,pkgconf,libssl-dev,libstdc++6 "$suite" "$root" 2>"$work/log"; then
    echo "SKIPPED: no clean Debian to install into ($(tail -n 1 "$work/log" 2>/dev/null || echo "needs root"))"
    return 0
  fi
  list_files >"$work/before"
  mkdir "$root/tmp/packages"
  cp "$out"/{libfetchrig5,libfetchrig-dev,fetchrig}_*.deb "$top/packaging/debian/tests/smoke" "$root/tmp/packages"
  in_root sh -c 'dpkg -i /tmp/packages/*.deb' >"$work/log" || { cat "$work/log"; return 1; }
  in_root /tmp/packages/smoke
  in_root dpkg --purge fetchrig libfetchrig-dev libfetchrig5 >"$work/log"
  list_files >"$work/after"
  diff "$work/before" "$work/after" && echo "Removed without leaving anything"
}

if [ "$build" = yes ]; then
  echo "Source archive and packages of $version"
  make_source
  build_packages
fi
if [ "$check" = yes ]; then
  echo "Lintian"
  # The bug that a first upload closes is one of Debian's own, when it takes a package in.
  lintian --allow-root --fail-on error,warning --display-level ">=warning" \
    --suppress-tags initial-upload-closes-no-bugs "$out"/*.changes
  echo "In a clean Debian"
  use_packages
fi
(cd "$out" && ls)
