#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Tells which lines and branches of the library and of the command the tests reach: builds with counters, runs the
# tests, and prints a table for each. Branches that only an exception takes do not count. Works from any folder.
#   coverage.sh                    all tests but the replays of fuzz inputs and those of packages
#   coverage.sh -R 'unit|tftp'     the tests that these arguments of ctest choose
# The page build-coverage/coverage.html shows each line.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

readonly jobs=2
readonly library='(log|core|net|http|ftp|tftp|cert|ringtone)/'

scripts/setup.sh
cmake --preset coverage >/dev/null
cmake --build --preset coverage -j "$jobs" -- --quiet
find build-coverage -name '*.gcda' -delete
failed=no
ctest --preset coverage -j "$jobs" -LE 'fuzz|package' "$@" || failed=yes

# Of the objects of each alone: what tests compile of their headers has branches of its own.
report() {
  gcovr --root . --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors \
    --object-directory build-coverage --filter "$2" "${@:3}" "build-coverage/$1"
}
report CMakeFiles/fetchrig_objects.dir "$library" \
  --html-details build-coverage/coverage.html --txt --print-summary
report cli 'cli/' --print-summary | tail -n 3
[ "$failed" = no ]
