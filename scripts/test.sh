#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds and tests everything: style, layers, clang-tidy, the tests on 32-bit ARM under an emulator and the library's
# size there, the tests under the address, undefined-behaviour and thread sanitizers, some seconds of each fuzz target,
# cppcheck and the release build. Installs what is missing first. Works from any folder, as root or with sudo, as often
# as you like.
#   test.sh           all of it
#   test.sh --quick   style, layers, clang-tidy, cppcheck and the release build
# Ends with the number of test programs that passed, failed and skipped a part (a server that is not there).
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

quick=no
case "${1:-}" in
  "") ;;
  --quick) quick=yes ;;
  *) sed -n '3,10s/^# \{0,1\}//p' "scripts/test.sh"; exit 2 ;;
esac

readonly jobs=2
readonly arm_limit=$((290 * 1024)) arm_limit_without_extras=$((240 * 1024))
failures=()
passed=0
failed=0
skipped=0

# Runs a step and remembers whether it failed: step NAME COMMAND...
step() {
  local name=$1 began=$SECONDS
  shift
  echo "== $name"
  if "$@"; then echo "   $name: fine, $((SECONDS - began)) s"
  else
    echo "   $name: FAILED, $((SECONDS - began)) s"
    failures+=("$name")
  fi
}

check_format() {
  find . \( -name 'build*' -o -name .git \) -prune -o -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) \
    -print0 | xargs -0 clang-format --dry-run -Werror || return 1
  ! LC_ALL=C.UTF-8 git grep -nE '.{121}' -- '*.cpp' '*.h' '*.c' '*.py' '*.sh' '*.txt'  # comments and data too
}

# The library, the command and the scripts name their licence themselves, .reuse/dep5 names it for what has no comments.
check_licences() {
  reuse lint >/dev/null || { reuse lint; return 1; }
  ! git grep -L 'SPDX-License-Id[e]ntifier: MIT' -- '*.cpp' '*.h' '*.c' 'scripts/*.sh' 'scripts/*.py' 'cmake/*' \
    ':!tests' ':!fuzz' ':!bench'
}

check_arm() {
  if ! scripts/armhf-sysroot.sh; then
    echo "SKIPPED: the 32-bit ARM build, its packages cannot be fetched"
    return 0
  fi
  test_preset armhf -L 'unit|scenario|boundary' || return 1
  check_size build-armhf "$arm_limit" || return 1
  cmake -B build-armhf-small --preset armhf -DFETCHRIG_EXTRAS=OFF -DFETCHRIG_TESTS=OFF >/dev/null &&
    cmake --build build-armhf-small -j "$jobs" --target libfetchrig.so -- --quiet || return 1
  check_size build-armhf-small "$arm_limit_without_extras"
}

# check_size BUILD LIMIT: of the library that is installed.
check_size() {
  local size
  arm-linux-gnueabihf-strip -o "$1/stripped.so" "$1/libfetchrig.so" || return 1
  size=$(stat -c %s "$1/stripped.so")
  echo "   stripped library in $1: $size bytes, limit $2"
  [ "$size" -lt "$2" ]
}

check_cppcheck() {
  mkdir -p build/cppcheck
  cppcheck -j "$jobs" --quiet --error-exitcode=1 --std=c++20 --enable=warning,performance,portability,style \
    --suppressions-list=scripts/cppcheck.txt --cppcheck-build-dir=build/cppcheck -I . \
    -D_GNU_SOURCE -D_FILE_OFFSET_BITS=64 log core net http ftp tftp cert ringtone cli
}

# What is installed is the same bytes wherever it was built.
check_folder() {
  [ -e build/libfetchrig.so ] && ! grep -lF "$PWD" build/libfetchrig.so build/fetchrig
}

# The thread sanitizer's fixed address ranges clash with more than 28 random address bits.
wrapper=()
avoid_address_clash() {
  local bits
  bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 32)
  if [ "$bits" -gt 28 ] && setarch "$(uname -m)" -R true 2>/dev/null; then wrapper=(setarch "$(uname -m)" -R); fi
}

# Builds a preset and runs its tests: test_preset NAME [ctest arguments]
test_preset() {
  local preset=$1 log
  shift
  cmake --preset "$preset" >/dev/null && cmake --build --preset "$preset" -j "$jobs" -- --quiet || return 1
  log=$(mktemp)
  "${wrapper[@]}" ctest --preset "$preset" -j "$jobs" "$@" | tee "$log"
  local status=${PIPESTATUS[0]}
  count_results "$log" "$preset"
  rm -f "$log"
  return "$status"
}

# Adds up "100% tests passed, 0 tests failed out of 12" and the programs that skipped something.
count_results() {
  local line bad all skips last
  line=$(grep -E '[0-9]+ tests? failed out of [0-9]+' "$1" | tail -n 1)
  [[ $line =~ ([0-9]+)\ tests?\ failed\ out\ of\ ([0-9]+) ]] || return 0
  bad=${BASH_REMATCH[1]}
  all=${BASH_REMATCH[2]}
  last=build
  if [ "$2" != default ]; then last=build-$2; fi
  skips=$(grep -c '^SKIPPED: ' "$last/Testing/Temporary/LastTest.log")
  grep '^SKIPPED: ' "$last/Testing/Temporary/LastTest.log" | sort | uniq -c
  passed=$((passed + all - bad))
  failed=$((failed + bad))
  skipped=$((skipped + skips))
}

step "set-up" scripts/setup.sh
step "format" check_format
step "layers" scripts/check-layers.sh
step "licences" check_licences
if [ "$quick" = no ]; then
  step "32-bit ARM" check_arm
  step "address and undefined-behaviour sanitizers" test_preset asan
  avoid_address_clash
  step "thread sanitizer" test_preset tsan
  wrapper=()
  step "fuzz targets" scripts/fuzz.sh 3
fi
step "release" test_preset default
step "reference" cmake --build --preset default --target docs
step "calls between layers" scripts/check-layers.sh build
step "clang-tidy" scripts/tidy.sh build
step "cppcheck" check_cppcheck
step "no trace of this folder" check_folder

if [ ${#failures[@]} -gt 0 ]; then printf 'FAILED: %s\n' "${failures[@]}"; fi
echo "$passed passed, $failed failed, $skipped skipped"
[ ${#failures[@]} -eq 0 ]
