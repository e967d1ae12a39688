#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Checks that the source archive and the packages are the same bytes whoever builds them: makes them twice from the last
# commit, the second time in another folder, a year later, in another time zone and language and with another umask.
# Compiles everything twice.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir -p "$work/here" "$work/some/where/else"
TMPDIR=$work/here "$top/scripts/packages.sh" --build "$work/first" >/dev/null
(umask 027 && TMPDIR=$work/some/where/else TZ=Asia/Kathmandu LC_ALL=C.UTF-8 \
  faketime -f +365d "$top/scripts/packages.sh" --build "$work/second" >/dev/null)

# What tells of the build itself, its day and its machine, differs.
differing=$(diff -rq -x '*.buildinfo' -x '*.changes' "$work/first" "$work/second") ||
  { printf '%s\nNot reproducible\n' "$differing"; exit 1; }
echo "The same bytes twice:"
cd "$work/first" && sha256sum -- *.tar.* *.deb *.json
