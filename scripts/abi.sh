#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The library's binary interface on 64-bit x86: its name, the exported symbols with the types of functions and the sizes
# of data, the layouts of the public records and the values of constants. Compares it with packaging/libfetchrig.abi
# and fails when they differ: a program built before may no longer run.
#   abi.sh BUILD           compares the library of that build folder
#   abi.sh --write BUILD   writes the record: a change that was meant is committed together with it
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

write=no
if [ "${1:-}" = --write ]; then
  write=yes
  shift
fi
readonly library=$1/libfetchrig.so record=packaging/libfetchrig.abi
if [ "$(uname -m)" != x86_64 ]; then
  echo "SKIPPED: the record is of the binary interface on 64-bit x86"
  exit 0
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A program that uses nothing: the compiler tells what the headers declare.
compile_headers() {
  gcc -std=c99 -D_GNU_SOURCE -g -fno-eliminate-unused-debug-types -Iinclude -x c -c -o "$work/headers.o" \
    -aux-info "$work/functions" - <<<'#include <fetchrig_openssl.h>'
}

describe() {
  echo "== name and symbols"
  readelf -d "$library" | sed -n 's/.*Library soname: //p'
  nm -D --defined-only --with-symbol-versions --print-size "$library" |
    awk 'NF == 4 { print $4, $3 ~ /[BDR]/ ? "data " $2 : "function" }' | LC_ALL=C sort
  echo "== functions"
  sed -n 's|^/\* include/fetchrig[^*]*\*/ extern ||p' "$work/functions" | LC_ALL=C sort
  echo "== constants and records"
  sed -nE 's/^(typedef )?(enum|struct) ([a-z_0-9]+) \{.*/\3/p' include/fetchrig*.h | LC_ALL=C sort -u | paste -sd , |
    xargs -I {} pahole -C {} "$work/headers.o" |
    sed 's/, cachelines: [0-9]*//; /cacheline/d; /X\{3\}/d; /^$/d; s/\t/  /g'
}

compile_headers
describe >"$work/described"
if [ "$write" = yes ]; then
  cp "$work/described" "$record"
elif ! diff -u "$record" "$work/described"; then
  echo "The binary interface has changed. Meant so? scripts/abi.sh --write $1, see CONTRIBUTING.md"
  exit 1
fi
