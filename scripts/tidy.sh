#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs the checks of .clang-tidy over the library and the command, a folder at a time: its files are read as one, so
# that what they include is looked at once. A folder is looked at again when a file of it, or a header that it includes,
# is newer than the last time it was found fine. Fails on any finding.
#   tidy.sh BUILD     a folder for what was found fine
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

readonly stamps=$1/tidy
mkdir -p "$stamps"

check() {
  local folder=$1 all=$2/$1.cpp finding analyzer=(-Xclang -analyzer-opt-analyze-headers)
  local options=(-std=c++20 -O2 -Wall -Wextra -I. -Iinclude
    -D_GNU_SOURCE -D_FILE_OFFSET_BITS=64 -DOPENSSL_SUPPRESS_DEPRECATED)
  # The command's libraries are all headers: following each call into them takes minutes.
  if [ "$folder" = cli ]; then analyzer+=(-Xclang -analyzer-config -Xclang ipa=none); fi
  # What a call that fails returns is known everywhere.
  printf '#include "%s"  // NOLINT(bugprone-suspicious-include)\n' core/result.cpp "$folder"/*.cpp | sort -u >"$all"
  if ! finding=$(clang-tidy --quiet --warnings-as-errors='*' --config-file=.clang-tidy "$all" -- \
    "${options[@]}" "${analyzer[@]}" 2>/dev/null); then
    echo "$finding"
    return 1
  fi
  # What was found fine names the files that it was made of.
  g++ "${options[@]}" -MM "$all" | grep -oE '[^ ]+[.](h|cpp)\b' >"$2/$folder.fine"
}
export -f check

changed=()
for folder in cli log core net http ftp tftp cert ringtone; do
  fine=$stamps/$folder.fine files=()
  if [ -s "$fine" ]; then mapfile -t files <"$fine"; fi
  # A file that is gone makes find fail.
  if [ ${#files[@]} -eq 0 ] ||
    ! newer=$(find "$folder" .clang-tidy "${files[@]}" -newer "$fine" -print -quit 2>&1) || [ -n "$newer" ]; then
    changed+=("$folder")
  fi
done

echo "looking at: ${changed[*]:-nothing that changed}"
if [ ${#changed[@]} -eq 0 ]; then exit 0; fi
printf '%s\n' "${changed[@]}" | xargs -P 2 -I {} bash -c 'check "$@"' _ {} "$stamps"
